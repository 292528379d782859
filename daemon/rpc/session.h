// The stream of a Session call.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>
#include <grpcpp/grpcpp.h>

#include <deque>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "daemon/engine/engine.h"
#include "daemon/rpc/access.h"
#include "daemon/rpc/audit_log.h"
#include "daemon/rpc/stream_limit.h"
#include "reservation/v1/reservation.pb.h"
#include "util/mutex.h"

namespace reservationd {

namespace v1 = reservation::v1;

class SessionList;

// Hands one client's operations to the engine as they are read, and answers them in their order. Nothing is read while
// too many of them are unanswered, so that a client which does not read its answers holds the memory of these.
class Session : public grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>,
                public std::enable_shared_from_this<Session> {
public:
    // All must outlive the call.
    Session(Engine& engine, const AccessControl& access, AuditLog& audit, SessionList& list,
            grpc::CallbackServerContext& context, StreamLimit::Slot slot)
        : engine_(engine),
          access_(access),
          audit_(audit),
          list_(list),
          client_(ClientOf(context)),
          caller_(DescribeCaller(context)),
          slot_(std::move(slot)) {}

    void Start() { GoOn(); }

    // Reads no more, and ends when what has been read is answered.
    void End();

    void OnReadDone(bool ok) override;
    void OnWriteDone(bool ok) override;
    void OnDone() override;

private:
    struct Exchange {
        v1::SessionRequest request;
        v1::SessionReply reply;
        bool is_answered = false;
    };

    Exchange& Enter();
    void Submit();
    absl::Status Check(const absl::Status& parsed, const v1::Operation& operation);
    void RecordChange(const Exchange& exchange, const absl::Status& outcome);
    void Answer(Exchange& exchange, const absl::Status& status);
    void GoOn();
    bool IsToRead() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    Engine& engine_;
    const AccessControl& access_;
    AuditLog& audit_;
    SessionList& list_;
    const Client client_;
    const std::string caller_;    // for the audit
    const StreamLimit::Slot slot_;
    grpc::ByteBuffer incoming_;    // used by the read under way
    grpc::ByteBuffer outgoing_;    // used by the write under way
    util::Mutex mutex_;
    std::deque<Exchange> exchanges_ ABSL_GUARDED_BY(mutex_);    // those read and not yet being sent, in order
    bool is_reading_ ABSL_GUARDED_BY(mutex_) = false;    // until the engine has what was read
    bool is_writing_ ABSL_GUARDED_BY(mutex_) = false;    // the reply of an exchange
    bool is_at_end_ ABSL_GUARDED_BY(mutex_) = false;    // nothing more can be read
    bool is_broken_ ABSL_GUARDED_BY(mutex_) = false;    // nothing more can be written
    bool is_stopping_ ABSL_GUARDED_BY(mutex_) = false;
    bool is_finished_ ABSL_GUARDED_BY(mutex_) = false;
};

// The sessions of a server. It owns them until gRPC is done with them.
class SessionList {
public:
    // Returns a session that has started.
    Session* Begin(Engine& engine, const AccessControl& access, AuditLog& audit, grpc::CallbackServerContext& context,
                   StreamLimit::Slot slot);

    // Ends the sessions, those that begin later as well.
    void End();

    void Remove(const std::shared_ptr<Session>& session);

private:
    util::Mutex mutex_;
    std::set<std::shared_ptr<Session>> sessions_ ABSL_GUARDED_BY(mutex_);
    bool is_ended_ ABSL_GUARDED_BY(mutex_) = false;
};

}    // namespace reservationd
