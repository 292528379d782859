// The jobs of a trace as the replay runs them.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replay/settings.h"
#include "replay/trace/swf_trace.h"

namespace replay {

struct WorkloadJob {
    uint64_t id;    // the trace's number; a new one when that is not positive or not unique
    int64_t arrival;    // seconds since the start of the trace
    int64_t run_time;    // seconds
    uint32_t hcas;    // how many it needs; at most the fabric's
    std::string tenant;    // "user_12", "group_1" or "job_4711"
};

struct Workload {
    std::vector<WorkloadJob> jobs;    // by arrival, then in the order of the trace

    // Numbers of jobs of the trace that are left out.
    uint64_t too_wide = 0;    // for the fabric
    uint64_t without_run_time = 0;
    uint64_t without_procs = 0;
};

// The HCAs of the machine that the trace is from: its MaxNodes, else as many as its MaxProcs need, else as many as its
// widest job needs. Throws InputError when that is 0 or more than kMaxHcas.
uint32_t HcasOfTrace(const SwfTrace& trace, uint32_t procs_per_hca);

// REQUIRES: settings.hcas is not 0.
Workload MakeWorkload(const SwfTrace& trace, const ReplaySettings& settings);

}    // namespace replay
