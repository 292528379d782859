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

// Whoever has a reservation: a user, a group or a job of the trace.
struct Owner {
    uint16_t pkey = 0;
    uint32_t num_hcas = 0;    // in the reservation
};

struct RunningJob {
    uint64_t id = 0;
    std::string owner;
    std::vector<uint32_t> hcas;
    uint64_t reservation_id = 0;
};

// What is in use from a moment on.
struct Usage {
    int64_t time = 0;    // seconds since the start of the trace
    uint64_t hcas = 0;
    uint64_t reservations = 0;
    uint64_t trees = 0;
};

// All that a replay needs to go on from where it is.
struct ReplayState {
    // When a job ends, and its place in the order of the starts: jobs that end together end in that order.
    using EndKey = std::pair<int64_t, uint64_t>;

    int64_t now = 0;
    size_t next_arrival = 0;    // index of the next job of the workload to arrive
    std::deque<size_t> waiting;    // indices of the jobs that wait for HCAs
    std::map<EndKey, RunningJob> running;
    std::map<std::string, Owner> owners;    // those that have a reservation
    Figures figures;
    std::vector<Usage> usage;    // by time, one where something changes
};
