#include "benchmarks/load_reservation.h"

#include <absl/strings/str_format.h>

namespace load {

namespace {

// GUIDs that are administered locally: no HCA was ever made with one.
constexpr uint64_t kFirstGuid = 0x0200'0000'0000'0001;
constexpr uint64_t kGuidsPerReservation = uint64_t{1} << 24;

}    // namespace

const char* NameOf(Action action) {
    static constexpr const char* kNames[] = {"create", "add", "remove", "begin", "end", "delete"};
    return kNames[static_cast<size_t>(action)];
}

bool LoadReservation::IsPossible(Action action) const {
    switch (action) {
        case Action::kCreate:
            return !exists;
        case Action::kAdd:
            return exists && !has_one_more;
        case Action::kRemove:
            return has_one_more;
        case Action::kEnd:
            return has_job;
        case Action::kBegin:
        case Action::kDelete:
            return exists && !has_job;
    }
    return false;
}

void LoadReservation::Apply(Action action) {
    switch (action) {
        case Action::kCreate:
            exists = true;
            break;
        case Action::kAdd:
        case Action::kRemove:
            has_one_more = action == Action::kAdd;
            break;
        case Action::kBegin:
        case Action::kEnd:
            has_job = action == Action::kBegin;
            break;
        case Action::kDelete:
            exists = has_one_more = false;
            break;
    }
}

std::vector<LoadReservation> MakeReservations(uint32_t first_number, uint32_t count, uint32_t num_hcas) {
    std::vector<LoadReservation> reservations;
    for (uint64_t number = first_number; number < uint64_t{first_number} + count; ++number) {
        reservations.push_back({.key = absl::StrFormat("load_%08d", number),
                                .first_guid = kFirstGuid + number * kGuidsPerReservation,
                                .num_hcas = num_hcas,
                                .job_id = number + 1});
    }
    return reservations;
}

}    // namespace load
