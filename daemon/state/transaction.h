// Operations of transactions and sessions.

#pragma once

#include <absl/status/status.h>

#include "daemon/state/reservation_state.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

// Carries out one operation. REQUIRES: it is one that this version knows, and its fields have been checked.
void RunOperation(ReservationState& state, const v1::Operation& operation, v1::OperationReply* reply);

// Tells what the operations would do, by carrying them out in `scratch`, up to the first one that is refused. `reply`
// comes empty, `version` is that of the state which was copied. ABORTED when the state or the consequences are not what
// the request expects. REQUIRES: as RunOperation, of all of them; `scratch` comes from a ScratchCopy for the request.
absl::Status TryTransaction(ReservationState& scratch, const v1::StateVersion& version,
                            const v1::TransactRequest& request, v1::TransactReply* reply);

// Carries out the operations, if all of them succeed when they are tried; whether it is a dry run is not looked at.
// Otherwise as TryTransaction, with nothing changed.
absl::Status Transact(ReservationState& state, const v1::StateVersion& version, const v1::TransactRequest& request,
                      v1::TransactReply* reply);

}    // namespace reservationd
