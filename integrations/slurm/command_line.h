// The program: its commands and options.

#pragma once

namespace reservation_slurm {

// Carries out a command line, as main() gets it, and returns the exit status.
int RunCommandLine(int argc, const char* const* argv);

}    // namespace reservation_slurm
