// What shapes a replay. Two replays of one trace with the same settings give the same figures.

#pragma once

#include <cstdint>
#include <string>

#include "messages/vesk_messages.h"

inline constexpr uint32_t kMaxHcas = 1'000'000;

// Each field is the option of its name.
struct Settings {
    uint32_t hcas = 0;    // 0: to be taken from the trace
    uint32_t procs_per_hca = 1;
    std::string per = "user";    // whose a reservation is: "user", "group" or "job"
    bool auto_by_pkeys = false;
    uint32_t planes = 1;
    uint32_t trees = 1;    // of a job, in each plane
    uint32_t num_trees = VESK_LIMIT_NOT_GIVEN;    // limit of a reservation
    uint16_t max_jobs_per_hca = 0;
    uint32_t default_num_trees = VESK_LIMIT_NOT_GIVEN;
    int log_level = 3;
};
