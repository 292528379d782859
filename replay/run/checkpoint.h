// A stopped replay in its persistent directory: all that is needed to go on, except the reservations, which are in
// files of their own.

#pragma once

#include <cstdint>
#include <string>

#include "replay/run/replay_state.h"
#include "replay/settings.h"
#include "replay/target/manager_observer.h"

namespace replay {

struct Checkpoint {
    ReplaySettings settings;
    uint64_t trace_size = 0;    // bytes
    uint64_t trace_hash = 0;    // SwfTrace::hash
    ManagerCounters counters;
    ReplayState state;
};

// Where the checkpoint of a persistent directory is.
std::string CheckpointPath(const std::string& dir);

// Writes the checkpoint, all of it or none. Throws std::runtime_error.
void WriteCheckpoint(const std::string& dir, const Checkpoint& checkpoint);

// Throws InputError when there is no checkpoint, or it is damaged.
Checkpoint ReadCheckpoint(const std::string& dir);

}    // namespace replay
