// Other programs.

#pragma once

#include <absl/status/statusor.h>
#include <absl/time/time.h>

#include <string>
#include <vector>

namespace reservation_slurm {

// Runs the program whose path and arguments `command` holds, in this environment (NAME=VALUE each) and without input,
// and returns what it prints to standard output. An error names the program: DeadlineExceeded when it has not ended by
// then, and is killed; Unavailable when it cannot be started, or fails, with what it printed to standard error.
absl::StatusOr<std::string> RunProgram(const std::vector<std::string>& command,
                                       const std::vector<std::string>& environment, absl::Time deadline);

}    // namespace reservation_slurm
