// How many streams, watches and sessions, one connection may have open.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/statusor.h>
#include <grpcpp/server_context.h>

#include <map>
#include <memory>

#include "daemon/rpc/connection.h"
#include "util/mutex.h"

namespace reservationd {

// Leaves room beside a connection's streams for its short calls, which would wait for a stream to end otherwise.
class StreamLimit {
public:
    static constexpr int kMaxStreamsPerConnection = 64;

    // Its end is the end of the stream.
    using Slot = std::shared_ptr<void>;

    // RESOURCE_EXHAUSTED when the connection has as many as it may have.
    absl::StatusOr<Slot> Open(grpc::CallbackServerContext& context);

private:
    void Close(grpc_auth_context* connection);

    util::Mutex mutex_;
    std::map<grpc_auth_context*, int> num_streams_ ABSL_GUARDED_BY(mutex_);    // where it is not 0
};

}    // namespace reservationd
