// What a refused request ran into, looked up in the registry.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reservation/reservation_manager.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// A change that was asked for. Both lists are ascending.
struct WantedChange {
    std::string key;
    std::vector<uint64_t> added_guids;
    std::vector<uint64_t> removed_guids;
};

// The conflict behind this refusal, as far as it can be named. `status` is the manager's answer to the change, and the
// options are those in force.
v1::Conflict FindConflict(const ReservationManager& manager, v1::Status status, const WantedChange& change);

// Of a job's GUIDs, which no reservation holds together: the first one that is in none, or in another one than the
// first.
v1::Conflict FindForeignGuid(const ReservationManager& manager, const google::protobuf::RepeatedField<uint64_t>& guids);

}    // namespace reservationd
