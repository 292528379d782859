// The daemon's jobs compared with those of Slurm.

#pragma once

#include <absl/status/status.h>
#include <absl/time/time.h>

#include "integrations/slurm/admission.h"
#include "integrations/slurm/controller.h"
#include "integrations/slurm/daemon.h"

namespace reservation_slurm {

// Ends in the daemon the jobs that Slurm does not have any more, if they were begun with a start time, as the hooks do;
// then shrinks or deletes the reservations that were made for jobs. Logs each job that it ends.
absl::Status Reconcile(const Config& config, const Controller& controller, Daemon& daemon, absl::Time deadline);

// Whether the daemon counts jobs that are over for Slurm, and whose epilogs it will hear of. False when one of both
// cannot be asked.
bool HasFinishedJobs(const Controller& controller, Daemon& daemon, absl::Time deadline);

}    // namespace reservation_slurm
