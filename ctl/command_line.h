// The program: its commands and options.

#pragma once

#include "ctl/errors.h"

namespace reservationctl {

// Carries out a command line, as main() gets it. Prints replies to standard output, refusals and errors to standard
// error.
ExitStatus RunCommandLine(int argc, const char* const* argv);

}    // namespace reservationctl
