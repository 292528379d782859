// Statuses and messages as gRPC sends them, and statuses as the engine's refusals become them.

#pragma once

#include <absl/status/status.h>
#include <google/protobuf/message.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/status.h>

#include <string>

#include "daemon/engine/engine.h"

namespace reservationd {

// Both number their codes alike.
inline grpc::Status ToGrpc(const absl::Status& status) {
    return {static_cast<grpc::StatusCode>(status.code()), std::string(status.message())};
}

// REQUIRES: the message has less than 2 GiB.
inline void Pack(const google::protobuf::Message& message, grpc::ByteBuffer* bytes) {
    bytes->Clear();
    bool owns_bytes = false;
    grpc::GenericSerialize<grpc::ProtoBufferWriter, google::protobuf::Message>(message, bytes, &owns_bytes);
}

inline absl::Status ToStatus(Refusal refusal, const std::string& reason) {
    switch (refusal) {
        case Refusal::kNone:
            return absl::OkStatus();
        case Refusal::kStopping:
            return absl::UnavailableError(reason);
        case Refusal::kNotStored:
        case Refusal::kTooManyCalls:
            break;
    }
    return absl::ResourceExhaustedError(reason);
}

}    // namespace reservationd
