#include "daemon/rpc/unread_replies.h"

#include <grpc/grpc.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace reservationd {

void UnreadReplies::Add(grpc::CallbackServerContext& context, size_t num_bytes) {
    std::vector<grpc_call*> to_cancel;
    {
        const util::MutexLock lock(&mutex_);
        replies_.push_back({context.c_call(), ConnectionOf(context), num_bytes});
        num_bytes_ += num_bytes;
        const grpc_auth_context* const connection = replies_.back().connection.get();
        size_t num_bytes_of_connection = NumBytesOf(connection);
        for (auto reply = replies_.begin(); reply != std::prev(replies_.end());) {
            const bool is_of_connection = reply->connection.get() == connection;
            if (num_bytes_ <= kMaxBytes && (num_bytes_of_connection <= kMaxBytesPerConnection || !is_of_connection)) {
                ++reply;
                continue;
            }
            num_bytes_ -= reply->num_bytes;
            if (is_of_connection) num_bytes_of_connection -= reply->num_bytes;
            grpc_call_ref(reply->call);
            to_cancel.push_back(reply->call);
            reply = replies_.erase(reply);
        }
    }
    // Without the lock, as the call may be done at once.
    for (grpc_call* const call : to_cancel) {
        grpc_call_cancel(call, nullptr);
        grpc_call_unref(call);
    }
}

void UnreadReplies::Remove(grpc::CallbackServerContext& context) {
    const util::MutexLock lock(&mutex_);
    const auto reply =
        std::find_if(replies_.begin(), replies_.end(), [&](const Reply& one) { return one.call == context.c_call(); });
    if (reply == replies_.end()) return;
    num_bytes_ -= reply->num_bytes;
    replies_.erase(reply);
}

size_t UnreadReplies::NumBytesOf(const grpc_auth_context* connection) const {
    size_t num_bytes = 0;
    for (const Reply& reply : replies_) num_bytes += reply.connection.get() == connection ? reply.num_bytes : 0;
    return num_bytes;
}

}    // namespace reservationd
