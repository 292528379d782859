// The stream of a Watch call.

#pragma once

#include <absl/base/thread_annotations.h>
#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "daemon/engine/event_log.h"
#include "daemon/rpc/access.h"
#include "daemon/rpc/stream_limit.h"
#include "reservation/v1/reservation.pb.h"
#include "util/mutex.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Sends events to one client as fast as it takes them, one at a time, so that a slow client holds the memory of one. It
// owns itself until gRPC is done with it.
class Watcher : public grpc::ServerWriteReactor<grpc::ByteBuffer>,
                public EventLog::Reader,
                public std::enable_shared_from_this<Watcher> {
public:
    // `log` and `access` must outlive the call.
    Watcher(EventLog& log, const AccessControl& access, Client client, StreamLimit::Slot slot)
        : log_(log), access_(access), client_(std::move(client)), slot_(std::move(slot)) {}

    // Starts at the event that the request wants. `epoch`: that the log's events are numbered in.
    void Start(const v1::WatchRequest& request, const std::string& epoch);

    void OnWriteDone(bool ok) override;
    void OnCancel() override;
    void OnDone() override;
    void Wake() override;

private:
    void Send(const v1::Event& event) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void SendNext() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void End(const grpc::Status& status) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void EndOutOfRange() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    EventLog& log_;
    const AccessControl& access_;
    const Client client_;
    const StreamLimit::Slot slot_;
    std::shared_ptr<Watcher> self_;    // set by Start, released by OnDone
    util::Mutex mutex_;
    grpc::ByteBuffer outgoing_ ABSL_GUARDED_BY(mutex_);    // being sent
    uint64_t next_ ABSL_GUARDED_BY(mutex_) = 0;    // number of the event to send
    bool is_waiting_ ABSL_GUARDED_BY(mutex_) = false;    // the log will call Wake
    bool is_ended_ ABSL_GUARDED_BY(mutex_) = false;
};

}    // namespace reservationd
