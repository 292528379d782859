// What a load does to one reservation.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace load {

enum class Action { kCreate, kAdd, kRemove, kBegin, kEnd, kDelete };

// "create", "add", "remove", "begin", "end" or "delete".
const char* NameOf(Action action);

// A reservation that one client changes. It has `num_hcas` HCAs, and at times one more; and at times one job, on all
// HCAs but the one more.
struct LoadReservation {
    std::string key;
    uint64_t first_guid = 0;    // the others follow it
    uint32_t num_hcas = 0;
    uint64_t job_id = 0;

    bool exists = false;
    bool has_one_more = false;
    bool has_job = false;

    bool IsPossible(Action action) const;

    // Notes that the action has been done.
    void Apply(Action action);
};

// Reservations numbered from `first_number` on. Those of different numbers share no key, HCA or job id.
std::vector<LoadReservation> MakeReservations(uint32_t first_number, uint32_t count, uint32_t num_hcas);

}    // namespace load
