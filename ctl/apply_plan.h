// The steps from the reservations that exist to those that are wanted.

#pragma once

#include <string>
#include <vector>

#include "reservation/v1/reservation.pb.h"

namespace reservationctl {

using Reservations = google::protobuf::RepeatedPtrField<reservation::v1::Reservation>;

struct Step {
    reservation::v1::Operation operation;    // creates, updates or deletes a reservation
    std::string reason;    // where the operation alone does not tell why it is there; else empty
};

// The steps, in an order in which no step adds a GUID that another reservation still holds: removals come first, then
// deletions, then additions and creations. None when there is nothing to change.
//
// Compares key, pkey, limits, origin and GUIDs; the GUIDs may be in any order. Only the GUIDs of a reservation can
// change, so that one with another pkey, limits or origin is deleted and created anew. A wanted reservation without
// GUIDs, which cannot be created as such, is created with one that nobody has or wants, and then loses it.
//
// No two of `wanted` have one key or share a GUID, and no GUID is in one of them twice.
std::vector<Step> PlanChanges(const Reservations& existing, const Reservations& wanted);

// "change appA: remove 1 GUID (0x3), add 2 GUIDs (0x10-0x11)"
std::string Describe(const Step& step);

}    // namespace reservationctl
