// Who has the HCAs of nodes.

#pragma once

#include "daemon/nodes/node_table.h"
#include "daemon/state/reservation_state.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Fills `reply`, which comes empty, but not its version, which is the engine's to know. REQUIRES: ResolveNodes has
// accepted the request, and its page_token is a number or empty.
void ListNodes(const ReservationState& state, const NodeTable& table, const v1::ListNodesRequest& request,
               v1::ListNodesReply* reply);

}    // namespace reservationd
