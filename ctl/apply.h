// The command that makes the reservations those of a file.

#pragma once

#include <string>

#include "ctl/call.h"
#include "ctl/errors.h"

namespace reservationctl {

struct ApplySettings {
    std::string path;    // of the declaration; -: standard input
    bool dry_run = false;    // show the plan and do nothing
    bool assume_yes = false;    // do not ask
};

// Prints the plan and what each step costs, asks, and carries the plan out. kRefused when a step was or would be
// refused, when the answer is no, and when a step has come to cost more than the plan told; then no later step is
// carried out. Throws what Call() throws, and UsageError for a file that cannot be used.
ExitStatus Apply(const Client& client, const ApplySettings& settings);

}    // namespace reservationctl
