// Picking free nodes for requests that leave it to the daemon.

#pragma once

#include "daemon/nodes/node_table.h"
#include "daemon/state/reservation_state.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

bool WantsFreeNodes(const v1::CreateReservationRequest& request);
bool WantsFreeNodes(const v1::UpdateReservationRequest& request);
bool WantsFreeNodes(const v1::Operation& operation);
bool WantsFreeNodes(const v1::TransactRequest& request);

// Each replaces the free nodes that the request wants by the GUIDs of nodes that are free in `state`, and leaves in its
// field of node names, which comes empty, an expression for these nodes. Where too few are free, the request stays as
// it is, and ReservationState refuses it. REQUIRES: ResolveNodes has accepted the request.
void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::CreateReservationRequest* request);
void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::UpdateReservationRequest* request);
void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::Operation* operation);
void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::TransactRequest* request);

// A request that wants none.
template <typename Request>
bool WantsFreeNodes(const Request&) {
    return false;
}
template <typename Request>
void PickFreeNodes(const ReservationState&, const NodeTable&, Request*) {}

}    // namespace reservationd
