#include "client/session.h"

#include <absl/strings/str_cat.h>
#include <absl/time/time.h>

#include <utility>

#include "client/client.h"

namespace client {

Session::Session(v1::ReservationService::Stub& stub, std::chrono::milliseconds timeout)
    : timeout_(timeout), stream_(stub.Session(&context_)), reader_([this] { ReadAll(); }) {}

Session::~Session() {
    context_.TryCancel();
    reader_.join();
}

absl::StatusOr<v1::OperationReply> Session::Call(const v1::Operation& operation) {
    v1::SessionRequest request;
    *request.mutable_operation() = operation;
    Exchange exchange;
    {
        const util::MutexLock lock(&mutex_);
        if (!status_.ok()) return status_;
        request.set_id(++last_id_);
        unanswered_.emplace(request.id(), &exchange);
    }
    Send(request);
    const util::MutexLock lock(&mutex_);
    if (mutex_.AwaitWithTimeout(absl::Condition(&exchange.is_answered), absl::FromChrono(timeout_))) {
        return std::move(exchange.reply);
    }
    unanswered_.erase(request.id());
    return absl::DeadlineExceededError(absl::StrCat("no reply within ", timeout_.count(), " ms"));
}

// A write that fails needs no notice: the stream has ended, and ReadAll() tells everybody.
void Session::Send(const v1::SessionRequest& request) {
    const util::MutexLock lock(&write_mutex_);
    stream_->Write(request);
}

void Session::ReadAll() {
    v1::SessionReply reply;
    while (stream_->Read(&reply)) Deliver(std::move(reply));
    const absl::Status status = ToAbslStatus(stream_->Finish());
    End(status.ok() ? absl::UnavailableError("the daemon has ended the session") : status);
}

void Session::Deliver(v1::SessionReply reply) {
    const util::MutexLock lock(&mutex_);
    const auto found = unanswered_.find(reply.id());
    if (found == unanswered_.end()) return;    // it came too late
    Exchange& exchange = *found->second;
    if (reply.error_code() == 0) {
        exchange.reply = std::move(*reply.mutable_reply());
    } else {
        exchange.reply = absl::Status(static_cast<absl::StatusCode>(reply.error_code()), reply.error_message());
    }
    exchange.is_answered = true;
    unanswered_.erase(found);
}

void Session::End(const absl::Status& status) {
    const util::MutexLock lock(&mutex_);
    status_ = status;
    for (const auto& [id, exchange] : unanswered_) {
        exchange->reply = status;
        exchange->is_answered = true;
    }
    unanswered_.clear();
}

}    // namespace client
