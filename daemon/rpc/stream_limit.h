// How many streams, watches and sessions, one connection may have open.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/statusor.h>
#include <grpc/grpc_security.h>
#include <grpcpp/server_context.h>

#include <map>
#include <memory>

#include "util/mutex.h"

namespace reservationd {

// What all calls of one connection share, and no other connection as long as this is held.
struct ReleaseConnection {
    void operator()(grpc_auth_context* context) const { grpc_auth_context_release(context); }
};
using ConnectionHandle = std::unique_ptr<grpc_auth_context, ReleaseConnection>;

ConnectionHandle ConnectionOf(grpc::CallbackServerContext& context);

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
