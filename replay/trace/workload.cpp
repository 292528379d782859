#include "replay/trace/workload.h"

#include <absl/strings/str_cat.h>

#include <algorithm>
#include <unordered_set>

#include "replay/input_error.h"

namespace replay {

namespace {

int64_t ProcsOf(const SwfJob& job) { return job.allocated_procs > 0 ? job.allocated_procs : job.requested_procs; }

int64_t HcasFor(int64_t procs, uint32_t procs_per_hca) { return (procs + procs_per_hca - 1) / procs_per_hca; }

std::string TenantOf(const std::string& per, const SwfJob& job, uint64_t id) {
    if (per == "job") return absl::StrCat("job_", id);
    const int64_t number = per == "group" ? job.group : job.user;
    return number < 0 ? per + "_unknown" : absl::StrCat(per, "_", number);
}

// Gives each job an id of its own: its number where that is possible.
class JobIds {
public:
    explicit JobIds(const SwfTrace& trace) {
        for (const SwfJob& job : trace.jobs) last_ = std::max(last_, job.number);
    }

    uint64_t IdFor(const SwfJob& job) {
        const bool is_usable = job.number > 0 && taken_.insert(job.number).second;
        return static_cast<uint64_t>(is_usable ? job.number : ++last_);
    }

private:
    int64_t last_ = 0;
    std::unordered_set<int64_t> taken_;
};

}    // namespace

uint32_t HcasOfTrace(const SwfTrace& trace, uint32_t procs_per_hca) {
    int64_t hcas = trace.max_nodes > 0 ? trace.max_nodes : HcasFor(trace.max_procs, procs_per_hca);
    if (hcas == 0) {
        for (const SwfJob& job : trace.jobs) hcas = std::max(hcas, HcasFor(ProcsOf(job), procs_per_hca));
    }
    if (hcas < 1 || hcas > kMaxHcas) {
        throw InputError(
            absl::StrCat(trace.name, ": its machine has ", hcas, " HCAs, not 1 to ", kMaxHcas, "; give --hcas"));
    }
    return static_cast<uint32_t>(hcas);
}

Workload MakeWorkload(const SwfTrace& trace, const ReplaySettings& settings) {
    Workload workload;
    JobIds ids(trace);
    for (const SwfJob& job : trace.jobs) {
        const int64_t hcas = HcasFor(ProcsOf(job), settings.procs_per_hca);
        if (job.run_time < 0) {
            ++workload.without_run_time;
        } else if (ProcsOf(job) <= 0) {
            ++workload.without_procs;
        } else if (hcas > settings.hcas) {
            ++workload.too_wide;
        } else {
            const uint64_t id = ids.IdFor(job);
            workload.jobs.push_back(
                {.id = id,
                 .arrival = std::max<int64_t>(job.submit_time, 0) + std::max<int64_t>(job.wait_time, 0),
                 .run_time = job.run_time,
                 .hcas = static_cast<uint32_t>(hcas),
                 .tenant = TenantOf(settings.per, job, id)});
        }
    }
    std::stable_sort(workload.jobs.begin(), workload.jobs.end(),
                     [](const WorkloadJob& a, const WorkloadJob& b) { return a.arrival < b.arrival; });
    return workload;
}

}    // namespace replay
