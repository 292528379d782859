#include "integrations/slurm/reconciliation.h"

#include <fmt/format.h>

#include <algorithm>

#include "integrations/slurm/log.h"

namespace reservation_slurm {
namespace {

// Jobs without a start time are not from Slurm.
bool IsGone(const v1::Job& job, const client::SchedulerJobs& known) {
    return job.start_unix_millis() != 0 && !known.Contains(job.job_id(), job.start_unix_millis());
}

}    // namespace

// In both, the daemon is asked first, so that a job which begins meanwhile is not taken for one that is gone.

absl::Status Reconcile(const Config& config, const Controller& controller, Daemon& daemon, absl::Time deadline) {
    const auto running = daemon.CallForAllPages(v1::ListJobsRequest(), deadline);
    if (!running.ok()) return running.status();
    const absl::StatusOr<client::SchedulerJobs> known = controller.ListJobs(deadline);
    if (!known.ok()) return known.status();
    Admission admission(config, daemon);
    for (const v1::Job& job : running->jobs()) {
        if (!IsGone(job, *known)) continue;
        const absl::Time start = absl::FromUnixMillis(job.start_unix_millis());
        const auto was_running = admission.End(job.job_id(), start, "", deadline);
        if (!was_running.ok()) return was_running.status();
        if (*was_running) {
            Log(LOG_WARNING, fmt::format("job {} of reservation {} is ended: Slurm does not have it any more",
                                         job.job_id(), job.reservation_key()));
        }
    }
    return admission.ShrinkAll(deadline);
}

bool HasFinishedJobs(const Controller& controller, Daemon& daemon, absl::Time deadline) {
    const auto running = daemon.CallForAllPages(v1::ListJobsRequest(), deadline);
    const absl::StatusOr<client::SchedulerJobs> known = controller.ListUnfinishedJobs(deadline);
    return running.ok() && known.ok() &&
           std::any_of(running->jobs().begin(), running->jobs().end(),
                       [&known](const v1::Job& job) { return IsGone(job, *known); });
}

}    // namespace reservation_slurm
