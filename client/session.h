// A stream of operations, of which several can be under way at once.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>
#include <absl/status/statusor.h>
#include <grpcpp/client_context.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <unordered_map>

#include "reservation/v1/reservation.grpc.pb.h"
#include "util/mutex.h"

namespace client {

namespace v1 = reservation::v1;

// Faster than a call for each operation: those that are under way together are made durable together. Several threads
// may use it at once; the operations of one thread are carried out in its order.
class Session {
public:
    // Operations that the daemon reads ahead of its answers. With more under way, the others wait to be sent.
    static constexpr uint32_t kMaxInFlight = 64;

    // `timeout` is that of each operation.
    Session(v1::ReservationService::Stub& stub, std::chrono::milliseconds timeout);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // REQUIRES: nothing is under way.
    ~Session();

    // Sends the operation and waits for its reply, with errors as Client::Call(). When the stream itself has ended, so
    // do this call and all later ones, with its status.
    absl::StatusOr<v1::OperationReply> Call(const v1::Operation& operation);

private:
    struct Exchange {
        bool is_answered = false;
        absl::StatusOr<v1::OperationReply> reply;
    };

    void Send(const v1::SessionRequest& request) ABSL_LOCKS_EXCLUDED(write_mutex_);
    void ReadAll();
    void Deliver(v1::SessionReply reply);
    void End(const absl::Status& status);

    const std::chrono::milliseconds timeout_;
    grpc::ClientContext context_;
    const std::unique_ptr<grpc::ClientReaderWriter<v1::SessionRequest, v1::SessionReply>> stream_;

    util::Mutex write_mutex_;    // one write at a time

    util::Mutex mutex_;
    uint64_t last_id_ ABSL_GUARDED_BY(mutex_) = 0;
    std::unordered_map<uint64_t, Exchange*> unanswered_ ABSL_GUARDED_BY(mutex_);    // by the request's id
    absl::Status status_ ABSL_GUARDED_BY(mutex_);    // not OK: the stream has ended

    std::thread reader_;    // last: it uses all of the above
};

}    // namespace client
