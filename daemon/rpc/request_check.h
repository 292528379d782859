// What is wrong with a request before the manager sees it.

#pragma once

#include <string>

#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Each returns "", or a message that names the field and its value. An empty key is left to the manager to refuse.
std::string FaultOf(const v1::CreateReservationRequest& request);
std::string FaultOf(const v1::UpdateReservationRequest& request);
std::string FaultOf(const v1::DeleteReservationRequest& request);
std::string FaultOf(const v1::GetReservationsRequest& request);
std::string FaultOf(const v1::BeginJobRequest& request);
std::string FaultOf(const v1::EndJobRequest& request);
std::string FaultOf(const v1::ListJobsRequest& request);
std::string FaultOf(const v1::ReportPortRequest& request);

}    // namespace reservationd
