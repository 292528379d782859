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

// Prints the plan and what each step costs, asks, and carries all of it out or nothing. kRefused when a step is or
// would be refused, and when the answer is no. Throws what Call() throws, with kChangedMeanwhile when there has been an
// event since the plan was made, or it would cost more than was shown; and UsageError for a file that cannot be used.
ExitStatus Apply(const Client& client, const ApplySettings& settings);

}    // namespace reservationctl
