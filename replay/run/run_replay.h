// The program behind its options: reads the trace, replays it, and reports.

#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "replay/settings.h"
#include "replay/target/daemon_target.h"

namespace replay {

struct RunOptions {
    std::string trace_path;
    ReplaySettings settings;
    std::set<std::string> given_settings;    // the fields of `settings` that the user gave
    std::string persistent_dir;    // empty: a temporary one, removed at the end
    uint64_t stop_after = 0;    // jobs; 0: do not stop
    bool resume = false;    // the replay that was stopped in persistent_dir
    ConnectOptions connection;    // with an address: replay through that daemon
    bool json = false;
    std::string svg_path;    // empty: no chart
};

// Prints the report on standard output. Returns 0, or 1 when a job was lost or a closing check failed, with messages on
// standard error. Throws InputError before anything has changed, and std::runtime_error when an output cannot be
// written or the daemon does not answer any more.
int RunReplay(const RunOptions& options);

}    // namespace replay
