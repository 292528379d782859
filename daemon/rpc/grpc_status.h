// Statuses as gRPC sends them, and as the engine's refusals become them.

#pragma once

#include <absl/status/status.h>
#include <grpcpp/support/status.h>

#include <string>

#include "daemon/engine/engine.h"

namespace reservationd {

// Both number their codes alike.
inline grpc::Status ToGrpc(const absl::Status& status) {
    return {static_cast<grpc::StatusCode>(status.code()), std::string(status.message())};
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
