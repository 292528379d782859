#include "integrations/slurm/service.h"

#include <absl/time/clock.h>
#include <fmt/format.h>

#include <algorithm>
#include <csignal>

#include "integrations/slurm/controller.h"
#include "integrations/slurm/daemon.h"
#include "integrations/slurm/event_follower.h"
#include "integrations/slurm/log.h"
#include "integrations/slurm/reconciliation.h"

namespace reservation_slurm {
namespace {

// How soon a reconciliation that failed is tried again.
constexpr absl::Duration kRetry = absl::Seconds(5);

// The threads that start later inherit the mask.
sigset_t BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Returns whether one of the signals has come within this time.
bool WaitForSignal(const sigset_t& signals, absl::Duration time) {
    const timespec timeout = absl::ToTimespec(time);
    return sigtimedwait(&signals, nullptr, &timeout) > 0;
}

}    // namespace

void RunService(const Config& config) {
    const sigset_t signals = BlockSignals();
    const Controller controller(config);
    EventFollower follower(config, controller);
    Daemon daemon(config.connection);
    absl::Status last;
    absl::Duration pause;
    do {
        absl::Status status = Reconcile(config, controller, daemon, absl::Now() + config.timeout);
        status.Update(follower.Confirm());
        if (!status.ok() && status != last) Log(LOG_WARNING, fmt::format("not reconciled: {}", status.ToString()));
        last = status;
        pause = status.ok() ? config.reconcile_every : std::min(kRetry, config.reconcile_every);
    } while (!WaitForSignal(signals, pause));
}

}    // namespace reservation_slurm
