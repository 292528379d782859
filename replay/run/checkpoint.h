// A stopped replay in its persistent directory: all that the daemon and the replay know, but for the reservations,
// which are in files of their own.

#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "replay/run/recorder.h"
#include "replay/run/replay_state.h"
#include "replay/settings.h"

struct Checkpoint {
    Settings settings;
    uint64_t trace_size = 0;
    uint64_t trace_hash = 0;
    Recorded recorded;
    ReplayState state;
};

// Where the checkpoint of a persistent directory is.
std::string CheckpointPath(const std::string& dir);

// Writes the checkpoint, whole or not at all. Throws std::runtime_error.
void WriteCheckpoint(const std::string& dir, const Checkpoint& checkpoint);

// Throws InputError when there is none, or it is damaged.
Checkpoint ReadCheckpoint(const std::string& dir);

// As a checkpoint and a report hold them.
nlohmann::json ToJson(const Settings& settings);
nlohmann::json ToJson(const Figures& figures);
nlohmann::json ToJson(const Recorded& recorded);
