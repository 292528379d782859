// The service's messages as the manager's records, and the other way round.

#pragma once

#include <cstdint>
#include <vector>

#include "messages/vesk_messages.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

using Guids = std::vector<uint64_t>;

// Returns the GUIDs ascending.
Guids Sorted(const google::protobuf::RepeatedField<uint64_t>& guids);

// Each returns the request as the manager takes it. REQUIRES: key and numbers have been checked. The GUID lists of the
// request are passed beside it, as the manager may sort them; the record points into them.
vesk_create_reservation ToRecord(const v1::CreateReservationRequest& request, Guids& guids);
vesk_update_reservation_by_delta ToRecord(const v1::UpdateReservationRequest& request, Guids& guids_to_add,
                                          Guids& guids_to_remove);
vesk_delete_reservation ToRecord(const v1::DeleteReservationRequest& request);
vesk_reservation_info_request ToRecord(const v1::GetReservationsRequest& request);

// Each sets some of the message's fields: key, pkey and state; all others that the record has.
void DescribeSummary(const vesk_reservation_info& record, v1::Reservation* reservation);
void DescribeDetails(const vesk_reservation_info& record, v1::Reservation* reservation);

}    // namespace reservationd
