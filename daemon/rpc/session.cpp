#include "daemon/rpc/session.h"

#include <optional>
#include <string>
#include <utility>

#include "daemon/rpc/dry_run.h"
#include "daemon/rpc/grpc_status.h"
#include "daemon/rpc/node_names.h"
#include "daemon/rpc/request_validation.h"
#include "daemon/state/free_nodes.h"
#include "daemon/state/transaction.h"

namespace reservationd {

namespace {

constexpr size_t kMaxUnanswered = 64;

}    // namespace

// ---- One session ----

void Session::End() {
    {
        const util::MutexLock lock(&mutex_);
        is_stopping_ = true;
    }
    GoOn();
}

void Session::OnReadDone(bool ok) {
    if (ok) Submit();
    {
        const util::MutexLock lock(&mutex_);
        is_reading_ = false;
        if (!ok) is_at_end_ = true;
    }
    GoOn();
}

void Session::OnWriteDone(bool ok) {
    {
        const util::MutexLock lock(&mutex_);
        is_writing_ = false;
        if (!ok) is_broken_ = true;
    }
    GoOn();
}

void Session::OnDone() { list_.Remove(shared_from_this()); }

Session::Exchange& Session::Enter() {
    const util::MutexLock lock(&mutex_);
    return exchanges_.emplace_back();
}

void Session::Submit() {
    Exchange& exchange = Enter();
    const absl::Status parsed = ParseMessage(incoming_, &exchange.request);
    v1::Operation& operation = *exchange.request.mutable_operation();
    const std::shared_ptr<const NodeTable> nodes = engine_.nodes();
    absl::Status status = Check(parsed, operation);
    if (status.ok()) status = ResolveNodes(*nodes, &operation);
    if (!status.ok()) return Answer(exchange, status);
    const auto run = [&exchange, &operation](ReservationState& state) {
        RunOperation(state, operation, exchange.reply.mutable_reply());
    };
    const auto done = [self = shared_from_this(), &exchange, nodes](Refusal refusal, const std::string& reason) {
        const absl::Status outcome = ToStatus(refusal, reason);
        self->RecordChange(exchange, outcome);
        NameNodes(*nodes, exchange.request.operation(), exchange.reply.mutable_reply());
        self->Answer(exchange, outcome);
    };
    if (IsDryRun(operation)) {
        const auto try_it = [run](ReservationState& scratch, const v1::StateVersion&) { run(scratch); };
        return Try(engine_, nodes, &operation, try_it, done);
    }
    const auto pick_and_run = [run, nodes, &operation](ReservationState& state) {
        PickFreeNodes(state, *nodes, &operation);
        run(state);
    };
    engine_.Submit({true, pick_and_run, done});
}

// The access lists may have changed since the session began.
absl::Status Session::Check(const absl::Status& parsed, const v1::Operation& operation) {
    absl::Status status = access_.Check(client_, Permission::kChange);
    if (!status.ok()) {
        audit_.RecordDenial([this] { return caller_ + ": an operation of its session: denied"; });
        return status;
    }
    status.Update(parsed);
    status.Update(ValidateRequest(operation));
    return status;
}

void Session::RecordChange(const Exchange& exchange, const absl::Status& outcome) {
    const v1::Operation& operation = exchange.request.operation();
    if (!IsDryRun(operation))
        audit_.RecordChange([this] { return caller_; }, operation, exchange.reply.reply(), outcome);
}

void Session::Answer(Exchange& exchange, const absl::Status& status) {
    exchange.reply.set_id(exchange.request.id());
    if (!status.ok()) {
        exchange.reply.clear_reply();
        exchange.reply.set_error_code(static_cast<uint32_t>(status.code()));
        exchange.reply.set_error_message(std::string(status.message()));
    }
    {
        const util::MutexLock lock(&mutex_);
        exchange.is_answered = true;
    }
    GoOn();
}

// Starts what can be started. A write begins without the lock: it sends. As long as is_writing_ says that one is under
// way, nobody else starts one, or finishes the call.
void Session::GoOn() {
    std::optional<v1::SessionReply> reply;
    grpc::Status status;
    {
        const util::MutexLock lock(&mutex_);
        if (IsToRead()) {
            is_reading_ = true;
            StartRead(&incoming_);
        }
        if (is_writing_ || is_finished_) return;
        while (is_broken_ && !exchanges_.empty() && exchanges_.front().is_answered) exchanges_.pop_front();
        if (!exchanges_.empty()) {
            if (!exchanges_.front().is_answered) return;
            is_writing_ = true;
            reply = std::move(exchanges_.front().reply);
            exchanges_.pop_front();
        } else {
            if (!is_stopping_ && !is_at_end_ && !is_broken_) return;
            is_finished_ = true;
            if (is_stopping_) status = {grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"};
        }
    }
    if (reply.has_value()) {
        Pack(*reply, &outgoing_);
        StartWrite(&outgoing_);
    } else {
        Finish(status);
    }
}

// Nothing is read during a dry run, which is not to see what comes after it.
bool Session::IsToRead() const {
    if (is_reading_ || is_at_end_ || is_broken_ || is_stopping_ || is_finished_) return false;
    if (exchanges_.empty()) return true;
    const Exchange& newest = exchanges_.back();
    return exchanges_.size() < kMaxUnanswered && (newest.is_answered || !IsDryRun(newest.request.operation()));
}

// ---- All sessions ----

Session* SessionList::Begin(Engine& engine, const AccessControl& access, AuditLog& audit,
                            grpc::CallbackServerContext& context, StreamLimit::Slot slot) {
    const auto session = std::make_shared<Session>(engine, access, audit, *this, context, std::move(slot));
    bool is_ended = false;
    {
        const util::MutexLock lock(&mutex_);
        sessions_.insert(session);
        is_ended = is_ended_;
    }
    session->Start();
    if (is_ended) session->End();
    return session.get();
}

void SessionList::End() {
    const util::MutexLock lock(&mutex_);
    is_ended_ = true;
    for (const std::shared_ptr<Session>& session : sessions_) session->End();
}

void SessionList::Remove(const std::shared_ptr<Session>& session) {
    const util::MutexLock lock(&mutex_);
    sessions_.erase(session);
}

}    // namespace reservationd
