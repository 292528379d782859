#include "daemon/rpc/stream_limit.h"

#include <absl/strings/str_cat.h>

namespace reservationd {

absl::StatusOr<StreamLimit::Slot> StreamLimit::Open(grpc::CallbackServerContext& context) {
    ConnectionHandle connection = ConnectionOf(context);
    {
        const util::MutexLock lock(&mutex_);
        int& num_streams = num_streams_[connection.get()];
        if (num_streams == kMaxStreamsPerConnection) {
            return absl::ResourceExhaustedError(
                absl::StrCat("the connection has ", num_streams, " watches and sessions, and may have no more"));
        }
        ++num_streams;
    }
    return Slot(connection.release(), [this](grpc_auth_context* closed) { Close(closed); });
}

void StreamLimit::Close(grpc_auth_context* connection) {
    {
        const util::MutexLock lock(&mutex_);
        const auto entry = num_streams_.find(connection);
        if (--entry->second == 0) num_streams_.erase(entry);
    }
    grpc_auth_context_release(connection);
}

}    // namespace reservationd
