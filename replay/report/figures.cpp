#include "replay/report/figures.h"

namespace {

uint64_t Sum(const std::map<std::string, uint64_t>& counts) {
    uint64_t sum = 0;
    for (const auto& [name, count] : counts) sum += count;
    return sum;
}

}    // namespace

uint64_t Figures::Refused() const { return Sum(refused); }

uint64_t Figures::Operations() const {
    uint64_t sum = 0;
    for (const auto& [kind, by_status] : operations) sum += Sum(by_status);
    return sum;
}

uint64_t CountOf(const Figures& figures, const std::string& kind) {
    const auto found = figures.operations.find(kind);
    return found == figures.operations.end() ? 0 : Sum(found->second);
}

uint64_t FailuresOf(const Figures& figures, const std::string& kind) {
    const auto found = figures.operations.find(kind);
    if (found == figures.operations.end()) return 0;
    const auto success = found->second.find("success");
    return Sum(found->second) - (success == found->second.end() ? 0 : success->second);
}

Figures FiguresOf(const Workload& workload) {
    Figures figures;
    figures.too_wide = workload.too_wide;
    figures.without_run_time = workload.without_run_time;
    figures.without_procs = workload.without_procs;
    figures.jobs_in_trace = workload.jobs.size() + figures.too_wide + figures.without_run_time + figures.without_procs;
    return figures;
}
