#include "daemon/rpc/service.h"

#include <absl/strings/str_cat.h>

#include <chrono>
#include <memory>
#include <utility>

#include "daemon/rpc/grpc_status.h"
#include "daemon/rpc/request_validation.h"
#include "daemon/rpc/watcher.h"
#include "daemon/state/transaction.h"

namespace reservationd {

namespace {

template <typename Request>
bool IsDryRun(const Request& request) {
    if constexpr (requires { request.dry_run(); }) return request.dry_run();
    return false;
}

// A stream that ends before it began.
template <typename Reactor>
class Refused : public Reactor {
public:
    explicit Refused(const absl::Status& status) { this->Finish(ToGrpc(status)); }
    void OnDone() override { delete this; }
};

}    // namespace

Service::Service(Engine& engine, const AccessControl& access)
    : engine_(engine),
      access_(access),
      started_unix_millis_(
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count()) {}

template <typename Request>
grpc::ServerUnaryReactor* Service::Submit(grpc::CallbackServerContext* context, const char* method,
                                          const Request& request,
                                          std::function<absl::Status(ReservationState& state)> run) {
    grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
    const Permission permission =
        IsDryRun(request) ? Permission::kRead : PermissionFor(absl::StrCat(kServicePrefix, method));
    absl::Status status = access_.Check(ClientOf(*context), permission);
    if (status.ok()) status = ValidateRequest(request);
    if (!status.ok()) {
        reactor->Finish(ToGrpc(status));
        return reactor;
    }
    const auto outcome = std::make_shared<absl::Status>();
    engine_.Submit({permission == Permission::kChange,
                    [run = std::move(run), outcome](ReservationState& state) { *outcome = run(state); },
                    [reactor, outcome](Refusal refusal, const std::string& reason) {
                        reactor->Finish(ToGrpc(refusal == Refusal::kNone ? *outcome : ToStatus(refusal, reason)));
                    }});
    return reactor;
}

template <typename Request, typename Reply>
grpc::ServerUnaryReactor* Service::Serve(grpc::CallbackServerContext* context, const char* method,
                                         const Request* request, Reply* reply,
                                         void (ReservationState::*operation)(const Request&, Reply*)) {
    return Submit(context, method, *request, [request, reply, operation](ReservationState& state) {
        reply->Clear();
        (state.*operation)(*request, reply);
        return absl::OkStatus();
    });
}

grpc::ServerUnaryReactor* Service::CreateReservation(grpc::CallbackServerContext* context,
                                                     const v1::CreateReservationRequest* request,
                                                     v1::ReservationReply* reply) {
    return Serve(context, "CreateReservation", request, reply, &ReservationState::CreateReservation);
}

grpc::ServerUnaryReactor* Service::UpdateReservation(grpc::CallbackServerContext* context,
                                                     const v1::UpdateReservationRequest* request,
                                                     v1::ReservationReply* reply) {
    return Serve(context, "UpdateReservation", request, reply, &ReservationState::UpdateReservation);
}

grpc::ServerUnaryReactor* Service::DeleteReservation(grpc::CallbackServerContext* context,
                                                     const v1::DeleteReservationRequest* request,
                                                     v1::ReservationReply* reply) {
    return Serve(context, "DeleteReservation", request, reply, &ReservationState::DeleteReservation);
}

grpc::ServerUnaryReactor* Service::GetReservations(grpc::CallbackServerContext* context,
                                                   const v1::GetReservationsRequest* request,
                                                   v1::ReservationReply* reply) {
    return Submit(context, "GetReservations", *request, [this, request, reply](ReservationState& state) {
        reply->Clear();
        state.GetReservations(*request, reply);
        *reply->mutable_version() = engine_.Version();
        return absl::OkStatus();
    });
}

grpc::ServerUnaryReactor* Service::BeginJob(grpc::CallbackServerContext* context, const v1::BeginJobRequest* request,
                                            v1::BeginJobReply* reply) {
    return Serve(context, "BeginJob", request, reply, &ReservationState::BeginJob);
}

grpc::ServerUnaryReactor* Service::EndJob(grpc::CallbackServerContext* context, const v1::EndJobRequest* request,
                                          v1::EndJobReply* reply) {
    return Serve(context, "EndJob", request, reply, &ReservationState::EndJob);
}

grpc::ServerUnaryReactor* Service::ListJobs(grpc::CallbackServerContext* context, const v1::ListJobsRequest* request,
                                            v1::ListJobsReply* reply) {
    return Serve(context, "ListJobs", request, reply, &ReservationState::ListJobs);
}

grpc::ServerUnaryReactor* Service::ReportPort(grpc::CallbackServerContext* context,
                                              const v1::ReportPortRequest* request, v1::ReportPortReply* reply) {
    return Serve(context, "ReportPort", request, reply, &ReservationState::ReportPort);
}

grpc::ServerUnaryReactor* Service::GetDaemonInfo(grpc::CallbackServerContext* context,
                                                 const v1::GetDaemonInfoRequest* request, v1::DaemonInfo* reply) {
    return Submit(context, "GetDaemonInfo", *request, [this, reply](ReservationState&) {
        reply->Clear();
        reply->set_version(RESERVATIOND_VERSION);
        reply->set_started_unix_millis(started_unix_millis_);
        engine_.Describe(reply);
        return absl::OkStatus();
    });
}

grpc::ServerUnaryReactor* Service::Transact(grpc::CallbackServerContext* context, const v1::TransactRequest* request,
                                            v1::TransactReply* reply) {
    return Submit(context, "Transact", *request, [this, request, reply](ReservationState& state) {
        reply->Clear();
        return reservationd::Transact(state, engine_.Version(), *request, reply);
    });
}

grpc::ServerBidiReactor<v1::SessionRequest, v1::SessionReply>* Service::Session(grpc::CallbackServerContext* context) {
    const Client client = ClientOf(*context);
    const absl::Status status = access_.Check(client, PermissionFor(absl::StrCat(kServicePrefix, "Session")));
    if (!status.ok()) return new Refused<grpc::ServerBidiReactor<v1::SessionRequest, v1::SessionReply>>(status);
    return sessions_.Begin(engine_);
}

grpc::ServerWriteReactor<v1::Event>* Service::Watch(grpc::CallbackServerContext* context,
                                                    const v1::WatchRequest* request) {
    const absl::Status status = access_.Check(ClientOf(*context), PermissionFor(absl::StrCat(kServicePrefix, "Watch")));
    if (!status.ok()) return new Refused<grpc::ServerWriteReactor<v1::Event>>(status);
    const auto watcher = std::make_shared<Watcher>(engine_.events());
    watcher->Start(*request, engine_.epoch());
    return watcher.get();
}

}    // namespace reservationd
