#include "benchmarks/load_connection.h"

#include <absl/strings/str_cat.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_unary_call.h>

#include <chrono>

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

// ---- Requests ----

template <typename Request>
void AddGuids(const LoadReservation& reservation, Request& request) {
    for (uint32_t i = 0; i < reservation.num_hcas; ++i) request.add_guids(reservation.first_guid + i);
}

v1::CreateReservationRequest CreateRequest(const LoadReservation& reservation) {
    v1::CreateReservationRequest request;
    request.set_key(reservation.key);
    request.set_pkey(kPkey);
    AddGuids(reservation, request);
    return request;
}

v1::UpdateReservationRequest DeltaRequest(const LoadReservation& reservation, bool is_add) {
    v1::UpdateReservationRequest request;
    request.set_key(reservation.key);
    auto* const guids = is_add ? request.mutable_add_guids() : request.mutable_remove_guids();
    guids->Add(reservation.first_guid + reservation.num_hcas);
    return request;
}

v1::DeleteReservationRequest DeleteRequest(const LoadReservation& reservation) {
    v1::DeleteReservationRequest request;
    request.set_key(reservation.key);
    return request;
}

v1::BeginJobRequest BeginRequest(const LoadReservation& reservation) {
    v1::BeginJobRequest request;
    request.set_job_id(reservation.job_id);
    request.set_planes(1);
    request.set_trees(1);
    AddGuids(reservation, request);
    return request;
}

v1::EndJobRequest EndRequest(const LoadReservation& reservation) {
    v1::EndJobRequest request;
    request.set_job_id(reservation.job_id);
    return request;
}

// ---- Replies: why the step was not done; empty: it was ----

std::string FailureIn(const v1::ReservationReply& reply) {
    return reply.status() == v1::STATUS_SUCCESS ? "" : absl::StrCat(reply.status_name(), ": ", reply.reason());
}

std::string FailureIn(const v1::BeginJobReply& reply) {
    if (reply.result() == v1::BeginJobReply::RESULT_ADMITTED) return "";
    return absl::StrCat(v1::BeginJobReply::Result_Name(reply.result()), ": ", reply.reason());
}

std::string FailureIn(const v1::EndJobReply& reply) { return reply.was_running() ? "" : "the job was not running"; }

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
    std::string Failure() const override { return status.ok() ? FailureIn(reply) : status.error_message(); }

    Reply reply;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Reply>> reader;
};

class CallConnection : public LoadConnection {
public:
    explicit CallConnection(const std::string& address) : stub_(Connect(address)) {}

    void Send(const LoadStep& step) override {
        const LoadReservation& reservation = *step.reservation;
        switch (step.action) {
            case Action::kCreate:
                return Start(step, &Stub::PrepareAsyncCreateReservation, CreateRequest(reservation));
            case Action::kAdd:
            case Action::kRemove:
                return Start(step, &Stub::PrepareAsyncUpdateReservation,
                             DeltaRequest(reservation, step.action == Action::kAdd));
            case Action::kBegin:
                return Start(step, &Stub::PrepareAsyncBeginJob, BeginRequest(reservation));
            case Action::kEnd:
                return Start(step, &Stub::PrepareAsyncEndJob, EndRequest(reservation));
            case Action::kDelete:
                return Start(step, &Stub::PrepareAsyncDeleteReservation, DeleteRequest(reservation));
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

}    // namespace

std::unique_ptr<LoadConnection> ConnectForCalls(const std::string& address) {
    return std::make_unique<CallConnection>(address);
}

v1::DaemonInfo GetDaemonInfo(const std::string& address) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
    v1::DaemonInfo info;
    const grpc::Status status = Connect(address)->GetDaemonInfo(&context, v1::GetDaemonInfoRequest(), &info);
    if (!status.ok()) throw LoadError(absl::StrCat(address, ": no daemon answers: ", status.error_message()));
    return info;
}

}    // namespace load
