#include "daemon/rpc/watcher.h"

#include <absl/strings/str_cat.h>

#include <utility>

#include "daemon/rpc/grpc_status.h"

namespace reservationd {

void Watcher::Start(const v1::WatchRequest& request, const std::string& epoch) {
    const util::MutexLock lock(&mutex_);
    self_ = shared_from_this();
    if (!request.epoch().empty() && request.epoch() != epoch) {
        return End({grpc::StatusCode::OUT_OF_RANGE, "the numbering of the events began anew: its epoch is " + epoch});
    }
    next_ = request.from_sequence() != 0 ? request.from_sequence() : log_.newest() + 1;
    if (next_ < log_.oldest() || next_ > log_.newest() + 1) return EndOutOfRange();
    v1::Event start;
    start.set_sequence(next_);
    start.set_epoch(epoch);
    Send(start);
}

void Watcher::OnWriteDone(bool ok) {
    const util::MutexLock lock(&mutex_);
    if (!ok) return End(grpc::Status::CANCELLED);
    SendNext();
}

void Watcher::OnCancel() {
    const util::MutexLock lock(&mutex_);
    if (!is_waiting_) return;    // OnWriteDone will be told
    log_.Forget(self_);
    End(grpc::Status::CANCELLED);
}

void Watcher::OnDone() { const std::shared_ptr<Watcher> last = std::move(self_); }

void Watcher::Wake() {
    const util::MutexLock lock(&mutex_);
    if (!is_ended_) SendNext();
}

void Watcher::Send(const v1::Event& event) {
    Pack(event, &outgoing_);
    StartWrite(&outgoing_);
}

void Watcher::SendNext() {
    is_waiting_ = false;
    // The access lists may have changed since the watch began.
    const absl::Status access = access_.Check(client_, Permission::kRead);
    if (!access.ok()) return End(ToGrpc(access));
    v1::Event event;
    switch (log_.Read(next_, &event, self_)) {
        case EventLog::Outcome::kEvent:
            ++next_;
            return Send(event);
        case EventLog::Outcome::kNotYet:
            is_waiting_ = true;
            return;
        case EventLog::Outcome::kGone:
            return EndOutOfRange();
        case EventLog::Outcome::kClosed:
            return End({grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"});
    }
}

void Watcher::End(const grpc::Status& status) {
    if (!std::exchange(is_ended_, true)) Finish(status);
}

void Watcher::EndOutOfRange() {
    End({grpc::StatusCode::OUT_OF_RANGE, absl::StrCat("event ", next_, " is not there; the oldest one kept is ",
                                                      log_.oldest(), ", the next one to happen ", log_.newest() + 1)});
}

}    // namespace reservationd
