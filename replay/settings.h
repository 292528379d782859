// What shapes a replay. Two replays of one trace with the same settings give the same figures.

#pragma once

#include <cstdint>
#include <string>

#include "messages/vesk_messages.h"

namespace replay {

inline constexpr uint32_t kMaxHcas = 1'000'000;

// Each field is the option of its name.
struct ReplaySettings {
    uint32_t hcas = 0;    // 0: as many as the trace's machine had
    uint32_t procs_per_hca = 1;
    std::string per = "user";    // who is a tenant: each "user", "group" or "job" of the trace
    bool auto_by_pkeys = false;
    uint32_t planes = 1;    // of a job
    uint32_t trees = 1;    // of a job, in each plane
    uint32_t num_trees = VESK_LIMIT_NOT_GIVEN;    // of a reservation's jobs together, per plane
    uint16_t max_jobs_per_hca = 0;    // 0: no limit
    uint32_t default_num_trees = VESK_LIMIT_NOT_GIVEN;    // in place of a num_trees that is not given
    int log_level = 3;
};

}    // namespace replay
