// Slurm's controller, by way of Slurm's own programs.

#pragma once

#include <absl/status/status.h>
#include <absl/status/statusor.h>
#include <absl/time/time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "client/scheduler_jobs.h"
#include "integrations/slurm/config.h"

namespace reservation_slurm {

// Errors of all calls are those of RunProgram().
class Controller {
public:
    explicit Controller(const Config& config);

    // The jobs that have nodes now, and of those, the jobs that are not about to end.
    absl::StatusOr<client::SchedulerJobs> ListJobs(absl::Time deadline) const;
    absl::StatusOr<client::SchedulerJobs> ListUnfinishedJobs(absl::Time deadline) const;

    // Sets what `scontrol show job` shows as AdminComment.
    absl::Status Comment(uint64_t job_id, const std::string& text, absl::Time deadline) const;

    // Puts a job that is starting back into the queue, where it waits until it is released.
    absl::Status Hold(uint64_t job_id, absl::Time deadline) const;

    // Ends a job.
    absl::Status Cancel(uint64_t job_id, absl::Time deadline) const;

private:
    absl::StatusOr<client::SchedulerJobs> ListJobs(const std::string& states, absl::Time deadline) const;
    absl::StatusOr<std::string> Run(const std::string& program, std::vector<std::string> arguments,
                                    absl::Time deadline) const;

    const std::string bin_;
    std::vector<std::string> environment_;
};

}    // namespace reservation_slurm
