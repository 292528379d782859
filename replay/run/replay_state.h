// Where a replay stands.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "replay/report/figures.h"

namespace replay {

// A user, a group or a job of the trace, with a reservation of its own.
struct Tenant {
    uint16_t pkey = 0;
    uint32_t num_hcas = 0;    // in the reservation
};

struct RunningJob {
    uint64_t id = 0;
    std::string tenant;    // its name, which is the reservation's key unless that is made from pkeys
    std::vector<uint32_t> hcas;    // indices, 0 to ReplaySettings::hcas - 1
    uint64_t reservation_id = 0;
};

// What is in use from `time` on.
struct Usage {
    int64_t time = 0;    // seconds since the start of the trace
    uint64_t hcas = 0;
    uint64_t reservations = 0;
    uint64_t trees = 0;    // over all planes
};

// All that a replay needs to go on from where it is.
struct ReplayState {
    // When a job ends, in seconds since the start of the trace, and its rank among all jobs by their start: jobs that
    // end together end in that order.
    using EndKey = std::pair<int64_t, uint64_t>;

    int64_t now = 0;    // seconds since the start of the trace
    size_t next_arrival = 0;    // index in Workload::jobs of the next job to arrive
    std::deque<size_t> waiting;    // indices in Workload::jobs of the jobs that wait for HCAs, in order
    std::map<EndKey, RunningJob> running;
    std::map<std::string, Tenant> tenants;    // by name; those with a reservation
    Figures figures;
    std::vector<Usage> usage;    // by time; one for each change
};

}    // namespace replay
