// The command that ends what the scheduler does not know.

#pragma once

#include <chrono>
#include <string>

#include "ctl/call.h"
#include "ctl/errors.h"

namespace reservationctl {

struct ReconcileSettings {
    std::string path;    // of the scheduler's jobs, as client::SchedulerJobs reads them; -: standard input
    std::chrono::seconds min_age{60};    // jobs that began later are left alone
    bool all = false;    // also end jobs without a start time
    bool dry_run = false;    // show what would be ended, and end nothing
};

// Ends the daemon's jobs that are not among the scheduler's, and prints them. Throws what Call() throws, and UsageError
// for a file that cannot be used.
ExitStatus ReconcileJobs(const Client& client, const ReconcileSettings& settings);

}    // namespace reservationctl
