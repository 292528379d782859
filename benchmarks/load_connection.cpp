#include "benchmarks/load_connection.h"

#include <absl/strings/str_cat.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_unary_call.h>
#include <grpcpp/support/sync_stream.h>

#include <chrono>
#include <deque>
#include <optional>

#include "client/client.h"
#include "client/connection.h"
#include "reservation/v1/reservation.grpc.pb.h"

namespace load {

namespace v1 = reservation::v1;

namespace {

using Clock = std::chrono::steady_clock;
using Stub = v1::ReservationService::Stub;

constexpr std::chrono::seconds kCallTimeout{60};
constexpr uint32_t kPkey = 0x8001;

std::unique_ptr<Stub> Connect(const std::string& address) {
    client::ConnectionOptions options;
    options.addresses = {address};
    const auto channel = client::MakeChannel(options);
    if (!channel.ok()) throw LoadError(std::string(channel.status().message()));
    return v1::ReservationService::NewStub(*channel);
}

// The code and the message.
std::string Describe(const grpc::Status& status) { return client::ToAbslStatus(status).ToString(); }

// ---- Operations and their replies ----

template <typename Request>
void AddGuids(const LoadReservation& reservation, Request& request) {
    for (uint32_t i = 0; i < reservation.num_hcas; ++i) request.add_guids(reservation.first_guid + i);
}

void Describe(const LoadReservation& reservation, v1::CreateReservationRequest& request) {
    request.set_key(reservation.key);
    request.set_pkey(kPkey);
    AddGuids(reservation, request);
}

void Describe(const LoadReservation& reservation, bool is_add, v1::UpdateReservationRequest& request) {
    request.set_key(reservation.key);
    auto* const guids = is_add ? request.mutable_add_guids() : request.mutable_remove_guids();
    guids->Add(reservation.first_guid + reservation.num_hcas);
}

void Describe(const LoadReservation& reservation, v1::BeginJobRequest& request) {
    request.set_job_id(reservation.job_id);
    request.set_planes(1);
    request.set_trees(1);
    AddGuids(reservation, request);
}

void Describe(const LoadStep& step, v1::Operation& operation) {
    switch (step.action) {
        case Action::kCreate:
            return Describe(*step.reservation, *operation.mutable_create_reservation());
        case Action::kAdd:
        case Action::kRemove:
            return Describe(*step.reservation, step.action == Action::kAdd, *operation.mutable_update_reservation());
        case Action::kBegin:
            return Describe(*step.reservation, *operation.mutable_begin_job());
        case Action::kEnd:
            return operation.mutable_end_job()->set_job_id(step.reservation->job_id);
        case Action::kDelete:
            return operation.mutable_delete_reservation()->set_key(step.reservation->key);
    }
}

// Each returns why the step was not done; an empty text when it was.

std::string FailureIn(const v1::ReservationReply& reply) {
    return reply.status() == v1::STATUS_SUCCESS ? "" : absl::StrCat(reply.status_name(), ": ", reply.reason());
}

std::string FailureIn(const v1::BeginJobReply& reply) {
    if (reply.result() == v1::BeginJobReply::RESULT_ADMITTED) return "";
    return absl::StrCat(v1::BeginJobReply::Result_Name(reply.result()), ": ", reply.reason());
}

std::string FailureIn(const v1::EndJobReply& reply) { return reply.was_running() ? "" : "the job was not running"; }

std::string FailureIn(const v1::SessionReply& reply) {
    if (reply.error_code() != 0) return reply.error_message();
    switch (reply.reply().reply_case()) {
        case v1::OperationReply::kReservation:
            return FailureIn(reply.reply().reservation());
        case v1::OperationReply::kBeginJob:
            return FailureIn(reply.reply().begin_job());
        case v1::OperationReply::kEndJob:
            return FailureIn(reply.reply().end_job());
        default:
            return "the reply is empty";
    }
}

// ---- Unary calls ----

struct PendingCall {
    explicit PendingCall(const LoadStep& call_step) : step(call_step) {
        context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
    }
    virtual ~PendingCall() = default;
    virtual std::string Failure() const = 0;

    const LoadStep step;
    grpc::ClientContext context;
    grpc::Status status;
    const Clock::time_point start = Clock::now();
};

template <typename Reply>
struct PendingCallWith : PendingCall {
    using PendingCall::PendingCall;
    std::string Failure() const override { return status.ok() ? FailureIn(reply) : Describe(status); }

    Reply reply;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Reply>> reader;
};

class CallConnection : public LoadConnection {
public:
    explicit CallConnection(const std::string& address) : stub_(Connect(address)) {}

    void Send(const LoadStep& step) override {
        v1::Operation operation;
        Describe(step, operation);
        switch (operation.operation_case()) {
            case v1::Operation::kCreateReservation:
                return Start(step, &Stub::PrepareAsyncCreateReservation, operation.create_reservation());
            case v1::Operation::kUpdateReservation:
                return Start(step, &Stub::PrepareAsyncUpdateReservation, operation.update_reservation());
            case v1::Operation::kDeleteReservation:
                return Start(step, &Stub::PrepareAsyncDeleteReservation, operation.delete_reservation());
            case v1::Operation::kBeginJob:
                return Start(step, &Stub::PrepareAsyncBeginJob, operation.begin_job());
            case v1::Operation::kEndJob:
                return Start(step, &Stub::PrepareAsyncEndJob, operation.end_job());
            case v1::Operation::OPERATION_NOT_SET:
                return;
        }
    }

    LoadAnswer Receive() override {
        void* tag = nullptr;
        bool is_ok = false;
        queue_.Next(&tag, &is_ok);
        const std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(tag));
        const std::chrono::duration<double> duration = Clock::now() - call->start;
        return {call->step, duration.count(), call->Failure()};
    }

private:
    template <typename Request, typename Reply>
    using PrepareMethod = std::unique_ptr<grpc::ClientAsyncResponseReader<Reply>> (Stub::*)(grpc::ClientContext*,
                                                                                            const Request&,
                                                                                            grpc::CompletionQueue*);

    template <typename Request, typename Reply>
    void Start(const LoadStep& step, PrepareMethod<Request, Reply> prepare, const Request& request) {
        auto* const call = new PendingCallWith<Reply>(step);    // Receive gets it back from the queue, and deletes it
        call->reader = (stub_.get()->*prepare)(&call->context, request, &queue_);
        call->reader->StartCall();
        call->reader->Finish(&call->reply, &call->status, static_cast<PendingCall*>(call));
    }

    const std::unique_ptr<Stub> stub_;
    grpc::CompletionQueue queue_;
};

// ---- Session ----

class SessionConnection : public LoadConnection {
public:
    explicit SessionConnection(const std::string& address)
        : stub_(Connect(address)), stream_(stub_->Session(&context_)) {}

    ~SessionConnection() override { End(); }

    void Send(const LoadStep& step) override {
        v1::SessionRequest request;
        request.set_id(next_id_++);
        Describe(step, *request.mutable_operation());
        pending_.push_back({step, Clock::now()});
        stream_->Write(request);    // when it fails, so does Receive
    }

    LoadAnswer Receive() override {
        const auto [step, start] = pending_.front();
        pending_.pop_front();
        const uint64_t id = next_id_ - pending_.size() - 1;
        v1::SessionReply reply;
        if (!stream_->Read(&reply)) return {step, 0, absl::StrCat("the session has ended: ", Describe(End()))};
        const std::chrono::duration<double> duration = Clock::now() - start;
        if (reply.id() != id) return {step, 0, absl::StrCat("reply to ", reply.id(), " instead of ", id)};
        return {step, duration.count(), FailureIn(reply)};
    }

private:
    struct PendingStep {
        LoadStep step;
        Clock::time_point start;
    };

    const grpc::Status& End() {
        if (status_.has_value()) return *status_;
        stream_->WritesDone();
        return status_.emplace(stream_->Finish());
    }

    grpc::ClientContext context_;
    const std::unique_ptr<Stub> stub_;
    const std::unique_ptr<grpc::ClientReaderWriter<v1::SessionRequest, v1::SessionReply>> stream_;
    std::optional<grpc::Status> status_;    // when the stream has ended
    uint64_t next_id_ = 1;
    std::deque<PendingStep> pending_;    // in the order of their ids, which is that of the replies
};

}    // namespace

std::unique_ptr<LoadConnection> ConnectForCalls(const std::string& address) {
    return std::make_unique<CallConnection>(address);
}

std::unique_ptr<LoadConnection> ConnectForSession(const std::string& address) {
    return std::make_unique<SessionConnection>(address);
}

v1::DaemonInfo GetDaemonInfo(const std::string& address) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
    v1::DaemonInfo info;
    const grpc::Status status = Connect(address)->GetDaemonInfo(&context, v1::GetDaemonInfoRequest(), &info);
    if (!status.ok()) throw LoadError(absl::StrCat(address, ": no daemon answers: ", Describe(status)));
    return info;
}

}    // namespace load
