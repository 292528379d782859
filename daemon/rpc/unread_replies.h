// Bounds the replies that clients have not read yet.

#pragma once

#include <absl/base/thread_annotations.h>
#include <grpcpp/server_context.h>

#include <cstddef>
#include <list>

#include "daemon/rpc/connection.h"
#include "util/mutex.h"

namespace reservationd {

// When the replies of one connection, or of all together, have too many bytes, the calls that have waited longest for
// their clients to read are cancelled, but not the newest one. For any thread.
class UnreadReplies {
public:
    static constexpr size_t kMaxBytesPerConnection = size_t{64} << 20;
    static constexpr size_t kMaxBytes = size_t{256} << 20;

    // Of a call that is about to be answered; it stays in the list until Remove, which is for OnDone.
    void Add(grpc::CallbackServerContext& context, size_t num_bytes);
    void Remove(grpc::CallbackServerContext& context);

private:
    struct Reply {
        grpc_call* call;
        ConnectionHandle connection;
        size_t num_bytes;
    };

    size_t NumBytesOf(const grpc_auth_context* connection) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    util::Mutex mutex_;
    std::list<Reply> replies_ ABSL_GUARDED_BY(mutex_);    // the oldest one first
    size_t num_bytes_ ABSL_GUARDED_BY(mutex_) = 0;
};

}    // namespace reservationd
