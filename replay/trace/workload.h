// A trace's jobs as the replay runs them.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replay/settings.h"
#include "replay/trace/swf_trace.h"

struct WorkloadJob {
    uint64_t id;    // the trace's number, or a free one where that is not positive or taken
    int64_t arrival;    // seconds since the start of the trace
    int64_t run_time;    // seconds
    uint32_t hcas;    // at most the fabric's
    std::string owner;    // "user_12", "group_1" or "job_4711"
};

struct Workload {
    std::vector<WorkloadJob> jobs;    // by arrival; jobs that arrive together in the order of the trace

    // Jobs of the trace that are left out.
    uint64_t too_wide = 0;
    uint64_t without_run_time = 0;
    uint64_t without_procs = 0;
};

// The number of HCAs of the machine that the trace is from: its MaxNodes, else as many as its MaxProcs need, else as
// many as its widest job needs. Throws InputError when that is none, or more than kMaxHcas.
uint32_t HcasOfTrace(const SwfTrace& trace, uint32_t procs_per_hca);

// The jobs of the trace on a fabric of `settings.hcas` HCAs.
Workload MakeWorkload(const SwfTrace& trace, const Settings& settings);
