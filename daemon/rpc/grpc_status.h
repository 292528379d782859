// Statuses as gRPC sends them.

#pragma once

#include <absl/status/status.h>
#include <grpcpp/support/status.h>

#include <string>

namespace reservationd {

// Both number their codes alike.
inline grpc::Status ToGrpc(const absl::Status& status) {
    return {static_cast<grpc::StatusCode>(status.code()), std::string(status.message())};
}

}    // namespace reservationd
