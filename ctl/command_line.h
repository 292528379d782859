// The commands and options of the program.

#pragma once

#include <functional>

#include "ctl/call.h"
#include "ctl/errors.h"

namespace reservationctl {

struct CommandLine {
    client::ConnectionOptions connection;
    std::function<ExitStatus(const Client& client)> command;
};

// Reads the command line, and the files of GUIDs that it names. Prints what --help and --version ask for, and exits.
// Throws UsageError, which names the option at fault.
CommandLine ReadCommandLine(int argc, char** argv);

}    // namespace reservationctl
