// What is wrong with a request before the manager sees it.

#pragma once

#include <string>

#include "reservation/v1/reservation.pb.h"

namespace reservationd {

// Each returns "", or a message that names the field and its value. An empty key is left to the manager to refuse.
std::string FaultOf(const reservation::v1::CreateReservationRequest& request);
std::string FaultOf(const reservation::v1::UpdateReservationRequest& request);
std::string FaultOf(const reservation::v1::DeleteReservationRequest& request);
std::string FaultOf(const reservation::v1::GetReservationsRequest& request);
std::string FaultOf(const reservation::v1::BeginJobRequest& request);
std::string FaultOf(const reservation::v1::EndJobRequest& request);
std::string FaultOf(const reservation::v1::ReportPortRequest& request);

}    // namespace reservationd
