// Refuses malformed requests before the manager sees them.

#pragma once

#include <absl/status/status.h>
#include <google/protobuf/message.h>
#include <grpcpp/support/byte_buffer.h>

#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Reads a message as it came over the network. INVALID_ARGUMENT when it cannot be read, with the path of the field
// whose text is not UTF-8, if that is why; `message` holds what comes before the fault.
absl::Status ParseMessage(const grpc::ByteBuffer& bytes, google::protobuf::Message* message);

// Each returns OK, or INVALID_ARGUMENT with a message that names the first field at fault and its value. An empty key
// is left to the manager to refuse.
absl::Status ValidateRequest(const v1::CreateReservationRequest& request);
absl::Status ValidateRequest(const v1::UpdateReservationRequest& request);
absl::Status ValidateRequest(const v1::DeleteReservationRequest& request);
absl::Status ValidateRequest(const v1::GetReservationsRequest& request);
absl::Status ValidateRequest(const v1::BeginJobRequest& request);
absl::Status ValidateRequest(const v1::EndJobRequest& request);
absl::Status ValidateRequest(const v1::ListJobsRequest& request);
absl::Status ValidateRequest(const v1::ListNodesRequest& request);
absl::Status ValidateRequest(const v1::ReportPortRequest& request);
absl::Status ValidateRequest(const v1::GetDaemonInfoRequest& request);
absl::Status ValidateRequest(const v1::Operation& operation);
absl::Status ValidateRequest(const v1::TransactRequest& request);

// Whether what is asked for would change nothing in any case.
bool IsDryRun(const v1::Operation& operation);

}    // namespace reservationd
