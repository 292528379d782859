// The report at the end of a replay.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/report/figures.h"
#include "replay/report/latency.h"
#include "replay/settings.h"
#include "replay/target/manager_observer.h"

namespace replay {

struct Report {
    std::string trace_name;
    const ReplaySettings& settings;
    const Figures& figures;
    const Latencies& latencies;
    std::string daemon_address{};    // empty: in this process
    uint32_t num_clients = 1;    // of the daemon
    uint32_t num_in_flight = 1;    // operations under way at once, of each client
    ManagerCounters start_up{};    // in this process only
    ManagerCounters replay;

    bool is_finished = false;    // false: stopped with jobs running
    uint64_t num_running = 0;    // jobs
    uint64_t num_waiting = 0;    // jobs
    std::vector<std::string> failed_checks;    // of a finished replay
};

// "128 HCAs, a reservation per user".
std::string DescribeSettings(const ReplaySettings& settings);

// For people: aligned text that ends in a newline.
std::string ReportText(const Report& report);

// For programs. All but "start_up" and "timing" depends on the trace and the settings alone, however often the replay
// was stopped and resumed.
nlohmann::json ReportJson(const Report& report);

}    // namespace replay
