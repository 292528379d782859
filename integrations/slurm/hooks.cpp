#include "integrations/slurm/hooks.h"

#include <absl/time/clock.h>
#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "integrations/slurm/admission.h"
#include "integrations/slurm/controller.h"
#include "integrations/slurm/daemon.h"
#include "integrations/slurm/log.h"
#include "integrations/slurm/reconciliation.h"

namespace reservation_slurm {
namespace {

constexpr int kStart = 0;
constexpr int kDoNotStart = 1;

// When a hook was started, and what it may do until when: the last quarter of its time is for telling Slurm.
struct Schedule {
    explicit Schedule(const Config& config)
        : start(absl::Now()), daemon_deadline(start + config.timeout * 3 / 4), deadline(start + config.timeout) {}

    const absl::Time start;
    const absl::Time daemon_deadline;
    const absl::Time deadline;
};

std::string NameOf(const SlurmJob& job) { return fmt::format("job {} on {}", job.id, job.nodes); }

void Comment(const Controller& controller, const SlurmJob& job, const std::string& text, const Schedule& schedule) {
    const absl::Status status = controller.Comment(job.id, "reservation: " + text, schedule.deadline);
    if (!status.ok()) Log(LOG_WARNING, fmt::format("{}: {}", NameOf(job), status.ToString()));
}

// Slurm gives nodes to the next job before the epilog of the last one has been heard: a refusal is final when there is
// no job in between.
absl::StatusOr<std::string> Begin(const Config& config, const Controller& controller, const SlurmJob& job,
                                  const JobPolicy& policy, const Schedule& schedule) {
    Daemon daemon(config.connection);
    Admission admission(config, daemon);
    absl::Duration pause = absl::Milliseconds(100);
    for (const absl::Time deadline = schedule.daemon_deadline;; pause = std::min(2 * pause, absl::Seconds(1))) {
        absl::StatusOr<std::string> key = admission.Begin(job, policy, schedule.start, deadline);
        if (key.ok() || !IsRefusal(key.status()) || absl::Now() + pause > deadline) return key;
        if (!HasFinishedJobs(controller, daemon, deadline)) {
            // The last of them may have been heard just now.
            return admission.Begin(job, policy, schedule.start, deadline);
        }
        absl::SleepFor(pause);
    }
}

int React(const Controller& controller, const SlurmJob& job, Reaction reaction, const absl::Status& status,
          const Schedule& schedule) {
    const std::string reason = fmt::format("{}: {}", IsRefusal(status) ? "refused" : "the daemon cannot be asked",
                                           std::string(status.message()));
    Log(LOG_WARNING, fmt::format("{}: {}", NameOf(job), reason));
    Comment(controller, job, reaction == Reaction::kRun ? "runs without trees: " + reason : reason, schedule);
    if (reaction == Reaction::kRun) return kStart;
    if (reaction == Reaction::kRequeue) return kDoNotStart;
    // A job that cannot be queued again, such as srun's, is ended by the exit status.
    const absl::Status held = controller.Hold(job.id, schedule.deadline);
    if (!held.ok()) Log(LOG_INFO, fmt::format("{}: not held: {}", NameOf(job), std::string(held.message())));
    return kDoNotStart;
}

}    // namespace

int RunProlog(const Config& config, const SlurmJob& job) {
    const Schedule schedule(config);
    const Controller controller(config);
    JobPolicy policy = config.PolicyFor(job);
    if (const absl::Status status = ApplyWishes(job, policy); !status.ok()) {
        const std::string reason = fmt::format("its comment: {}", std::string(status.message()));
        return React(controller, job, policy.on_refusal, absl::InvalidArgumentError(reason), schedule);
    }
    if (policy.mode == Mode::kNone) return kStart;

    const absl::StatusOr<std::string> key = Begin(config, controller, job, policy, schedule);
    if (!key.ok()) {
        const Reaction reaction = IsRefusal(key.status()) ? policy.on_refusal : policy.on_no_answer;
        return React(controller, job, reaction, key.status(), schedule);
    }
    Log(LOG_INFO, fmt::format("{} is in reservation {}", NameOf(job), *key));
    // In place of the reason why it was not admitted the last time.
    if (job.is_restarted) Comment(controller, job, "admitted to " + *key, schedule);
    return kStart;
}

// A job of this id that is started from now on is another one, whenever this comes to the daemon.
int RunEpilog(const Config& config, const SlurmJob& job) {
    const Schedule schedule(config);
    JobPolicy policy = config.PolicyFor(job);
    if (!ApplyWishes(job, policy).ok() || policy.mode == Mode::kNone) return 0;
    Daemon daemon(config.connection);
    const absl::StatusOr<bool> was_running =
        Admission(config, daemon).End(job.id, schedule.start, config.KeyFor(job, policy), schedule.deadline);
    if (was_running.ok()) {
        if (*was_running) Log(LOG_INFO, fmt::format("{} has ended", NameOf(job)));
        return 0;
    }
    Log(LOG_WARNING, fmt::format("{}: its end is not told: {}", NameOf(job), was_running.status().ToString()));
    return 1;
}

}    // namespace reservation_slurm
