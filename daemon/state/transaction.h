// Operations of transactions and sessions.

#pragma once

#include <absl/status/status.h>

#include "daemon/state/reservation_state.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

// Carries out one operation. REQUIRES: it is one that this version knows, and its fields have been checked.
void RunOperation(ReservationState& state, const v1::Operation& operation, v1::OperationReply* reply);

// Carries out the operations, if all of them succeed; with dry_run, only answers what they would do. `reply` comes
// empty, `version` is that of the state. ABORTED, with nothing changed, when the state or the consequences are not what
// the request expects. REQUIRES: as RunOperation, of all of them.
absl::Status Transact(ReservationState& state, const v1::StateVersion& version, const v1::TransactRequest& request,
                      v1::TransactReply* reply);

}    // namespace reservationd
