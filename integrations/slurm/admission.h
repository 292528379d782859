// Jobs into and out of the daemon's reservations, and the reservations that are made for them.
//
// A reservation that is made for jobs has, after each call here, the HCAs of its jobs and no others; without jobs it is
// not there. Hooks run side by side: what they read and what they change on that ground is not one step. The daemon
// refuses a change that would hurt a job which began in between, and it is then made anew.

#pragma once

#include <absl/status/status.h>
#include <absl/status/statusor.h>
#include <absl/time/time.h>

#include <cstdint>
#include <string>

#include "integrations/slurm/config.h"
#include "integrations/slurm/daemon.h"
#include "integrations/slurm/job.h"

namespace reservation_slurm {

// Errors of all calls: FailedPrecondition and InvalidArgument when the daemon refuses, with the reason in words, on one
// line; any other code when it cannot be asked.
bool IsRefusal(const absl::Status& status);

class Admission {
public:
    // Both must outlive it.
    Admission(const Config& config, Daemon& daemon) : config_(config), daemon_(daemon) {}

    // Begins the job as the policy wants it, and returns the key of its reservation. `start`: of the job. Harmless when
    // repeated. REQUIRES: the mode is not kNone.
    absl::StatusOr<std::string> Begin(const SlurmJob& job, const JobPolicy& policy, absl::Time start,
                                      absl::Time deadline);

    // Ends the job if it was started by then, and shrinks or deletes what was made for it. `key`: of the reservation
    // that was made; empty: none, or not known. Returns whether it was running.
    absl::StatusOr<bool> End(uint64_t job_id, absl::Time latest_start, const std::string& key, absl::Time deadline);

    // Takes the HCAs that no job has out of a reservation that was made for jobs, and deletes it if it has no jobs.
    absl::Status Shrink(const std::string& key, absl::Time deadline);

    // The same for all of them.
    absl::Status ShrinkAll(absl::Time deadline);

private:
    absl::StatusOr<std::string> BeginInExisting(const v1::BeginJobRequest& begin, absl::Time deadline);
    absl::StatusOr<std::string> BeginInOwn(const v1::BeginJobRequest& begin, const JobPolicy& policy,
                                           absl::Time deadline);
    absl::StatusOr<v1::TransactRequest> PlanBegin(const v1::BeginJobRequest& begin, const JobPolicy& policy,
                                                  absl::Time deadline);
    absl::StatusOr<v1::TransactRequest> PlanShrink(const std::string& key, absl::Time deadline);
    template <typename Plan>
    absl::Status CarryOut(const Plan& plan, absl::Time deadline);

    const Config& config_;
    Daemon& daemon_;
};

}    // namespace reservation_slurm
