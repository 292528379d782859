#include "integrations/slurm/controller.h"

#include <utility>

#include "integrations/slurm/process.h"

namespace reservation_slurm {
namespace {

const std::string kUnfinished = "CONFIGURING,RUNNING,SUSPENDED,STOPPED,SIGNALING,STAGE_OUT,RESIZING";

}    // namespace

Controller::Controller(const Config& config)
    : bin_(config.slurm_bin), environment_{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "SLURM_TIME_FORMAT=%s"} {
    if (!config.slurm_conf.empty()) environment_.push_back("SLURM_CONF=" + config.slurm_conf);
}

absl::StatusOr<client::SchedulerJobs> Controller::ListJobs(absl::Time deadline) const {
    return ListJobs(kUnfinished + ",COMPLETING", deadline);
}

absl::StatusOr<client::SchedulerJobs> Controller::ListUnfinishedJobs(absl::Time deadline) const {
    return ListJobs(kUnfinished, deadline);
}

// A job's submission tells it from an earlier one with its id as its start does: a requeued job counts as submitted
// anew. The start is no help, as Slurm moves it when a node had to be powered up.
absl::StatusOr<client::SchedulerJobs> Controller::ListJobs(const std::string& states, absl::Time deadline) const {
    const auto list =
        Run("squeue", {"--all", "--array", "--noheader", "--format=%A %V", "--states=" + states}, deadline);
    if (!list.ok()) return list.status();
    return client::SchedulerJobs::Parse(*list, "squeue");
}

absl::Status Controller::Comment(uint64_t job_id, const std::string& text, absl::Time deadline) const {
    return Run("scontrol", {"update", "JobId=" + std::to_string(job_id), "AdminComment=" + text}, deadline).status();
}

absl::Status Controller::Hold(uint64_t job_id, absl::Time deadline) const {
    return Run("scontrol", {"requeuehold", "State=SpecialExit", std::to_string(job_id)}, deadline).status();
}

absl::Status Controller::Cancel(uint64_t job_id, absl::Time deadline) const {
    return Run("scancel", {std::to_string(job_id)}, deadline).status();
}

absl::StatusOr<std::string> Controller::Run(const std::string& program, std::vector<std::string> arguments,
                                            absl::Time deadline) const {
    arguments.insert(arguments.begin(), bin_ + "/" + program);
    return RunProgram(arguments, environment_, deadline);
}

}    // namespace reservation_slurm
