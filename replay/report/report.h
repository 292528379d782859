// The report at the end of a replay.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/report/latency.h"
#include "replay/run/recorder.h"
#include "replay/run/replay_state.h"
#include "replay/settings.h"

struct Report {
    std::string trace_name;
    const Settings& settings;
    const ReplayState& state;
    const Latencies& latencies;
    std::string daemon_address{};    // empty: in this process
    uint32_t num_clients = 1;
    Recorded start_up{};    // in this process; a daemon tells nothing of its log
    Recorded replay;
    bool is_finished = false;    // rather than stopped with jobs running
    std::vector<std::string> failed_checks;    // of a finished one
};

// "128 HCAs, a reservation per user".
std::string DescribeSetting(const Settings& settings);

// For people: aligned text that ends in a newline.
std::string ReportText(const Report& report);

// For programs. Everything but "start_up" and "timing" is the same for the same trace and settings, however often the
// replay was stopped and resumed on its way.
nlohmann::json ReportJson(const Report& report);
