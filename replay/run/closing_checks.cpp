#include "replay/run/closing_checks.h"

#include <absl/strings/str_cat.h>

namespace replay {

namespace {

void Expect(std::vector<std::string>& failed, uint64_t actual, uint64_t expected, const std::string& what) {
    if (actual == expected) return;
    failed.push_back(absl::StrCat(what, ": ", actual, ", not ", expected));
}

}    // namespace

std::vector<std::string> FailedChecks(const ReplayState& state, const Target& target) {
    const Figures& figures = state.figures;
    std::vector<std::string> failed = target.FailedChecks();
    Expect(failed, state.waiting.size(), 0, "jobs that wait");
    Expect(
        failed,
        figures.replayed + figures.NumRefused() + figures.too_wide + figures.without_run_time + figures.without_procs,
        figures.jobs_in_trace, "jobs replayed, refused or skipped");
    Expect(failed, figures.NumOperations("job_end"), figures.replayed, "jobs that ended");
    Expect(failed, figures.NumFailures("job_end"), 0, "jobs that were gone at their end");
    Expect(failed, target.counters().failed_requests, figures.NumFailures("create") + figures.NumFailures("update"),
           "requests that the fabric counts as failed");
    return failed;
}

}    // namespace replay
