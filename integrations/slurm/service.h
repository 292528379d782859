// The service beside Slurm's controller: ends in Slurm the jobs that the daemon has ended, and in the daemon those that
// Slurm does not know.

#pragma once

#include "integrations/slurm/config.h"

namespace reservation_slurm {

// Serves until SIGTERM or SIGINT.
void RunService(const Config& config);

}    // namespace reservation_slurm
