// The reservation service: checks the client's permission, then the request, and hands the call to the engine.

#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <functional>

#include "daemon/engine/engine.h"
#include "daemon/rpc/access.h"
#include "daemon/rpc/session.h"
#include "reservation/v1/reservation.grpc.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

class Service final : public v1::ReservationService::CallbackService {
public:
    // Both must outlive the calls.
    Service(Engine& engine, const AccessControl& access);

    grpc::ServerUnaryReactor* CreateReservation(grpc::CallbackServerContext* context,
                                                const v1::CreateReservationRequest* request,
                                                v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* UpdateReservation(grpc::CallbackServerContext* context,
                                                const v1::UpdateReservationRequest* request,
                                                v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* DeleteReservation(grpc::CallbackServerContext* context,
                                                const v1::DeleteReservationRequest* request,
                                                v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* GetReservations(grpc::CallbackServerContext* context,
                                              const v1::GetReservationsRequest* request,
                                              v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* BeginJob(grpc::CallbackServerContext* context, const v1::BeginJobRequest* request,
                                       v1::BeginJobReply* reply) override;
    grpc::ServerUnaryReactor* EndJob(grpc::CallbackServerContext* context, const v1::EndJobRequest* request,
                                     v1::EndJobReply* reply) override;
    grpc::ServerUnaryReactor* ListJobs(grpc::CallbackServerContext* context, const v1::ListJobsRequest* request,
                                       v1::ListJobsReply* reply) override;
    grpc::ServerUnaryReactor* ReportPort(grpc::CallbackServerContext* context, const v1::ReportPortRequest* request,
                                         v1::ReportPortReply* reply) override;
    grpc::ServerUnaryReactor* Transact(grpc::CallbackServerContext* context, const v1::TransactRequest* request,
                                       v1::TransactReply* reply) override;
    grpc::ServerBidiReactor<v1::SessionRequest, v1::SessionReply>* Session(
        grpc::CallbackServerContext* context) override;
    grpc::ServerWriteReactor<v1::Event>* Watch(grpc::CallbackServerContext* context,
                                               const v1::WatchRequest* request) override;
    grpc::ServerUnaryReactor* GetDaemonInfo(grpc::CallbackServerContext* context,
                                            const v1::GetDaemonInfoRequest* request, v1::DaemonInfo* reply) override;

    // Lets the sessions end when what they have under way is answered.
    void EndSessions() { sessions_.End(); }

private:
    template <typename Request>
    grpc::ServerUnaryReactor* Submit(grpc::CallbackServerContext* context, const char* method, const Request& request,
                                     std::function<absl::Status(ReservationState& state)> run);
    template <typename Request, typename Reply>
    grpc::ServerUnaryReactor* Serve(grpc::CallbackServerContext* context, const char* method, const Request* request,
                                    Reply* reply, void (ReservationState::*operation)(const Request&, Reply*));

    Engine& engine_;
    const AccessControl& access_;
    const int64_t started_unix_millis_;
    SessionList sessions_;
};

}    // namespace reservationd
