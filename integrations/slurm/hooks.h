// What Slurm's controller runs before a job starts (PrologSlurmctld) and after it ended (EpilogSlurmctld).

#pragma once

#include "integrations/slurm/config.h"
#include "integrations/slurm/job.h"

namespace reservation_slurm {

// Each returns the exit status for Slurm, within the configured time.

// 0: the job may start. 1: it goes back into the queue, or is ended where it cannot be queued again.
int RunProlog(const Config& config, const SlurmJob& job);

// 0: the daemon knows that the job has ended. 1: it does not; the service will tell it.
int RunEpilog(const Config& config, const SlurmJob& job);

}    // namespace reservation_slurm
