#include "replay/run/closing_checks.h"

namespace {

void Expect(std::vector<std::string>& failed, uint64_t actual, uint64_t expected, const std::string& what) {
    if (actual == expected) return;
    failed.push_back(what + ": " + std::to_string(actual) + ", not " + std::to_string(expected));
}

}    // namespace

std::vector<std::string> FailedChecks(const ReplayState& state, const ReplayTarget& target) {
    const Figures& figures = state.figures;
    std::vector<std::string> failed = target.FailedChecks();
    Expect(failed, state.waiting.size(), 0, "jobs that wait");
    Expect(failed,
           figures.replayed + figures.Refused() + figures.too_wide + figures.without_run_time + figures.without_procs,
           figures.jobs_in_trace, "jobs replayed, refused or skipped");
    Expect(failed, CountOf(figures, "job_end"), figures.replayed, "jobs that ended");
    Expect(failed, FailuresOf(figures, "job_end"), 0, "jobs that were gone at their end");
    Expect(failed, target.recorded().failed_requests, FailuresOf(figures, "create") + FailuresOf(figures, "update"),
           "requests that the fabric counts as failed");
    return failed;
}
