// The service as gRPC calls it: checks who asks and what, and leaves the rest to the engine.

#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "daemon/engine/engine.h"
#include "reservation/v1/reservation.grpc.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Who may do what over TCP, by the common name of the client's certificate. On the Unix socket everybody may do
// everything: its mode says who can connect.
struct AccessRules {
    std::set<std::string> full_access_names;
    std::set<std::string> read_only_names;
};

class Service final : public v1::ReservationService::CallbackService {
public:
    // `engine` must outlive the calls.
    Service(Engine& engine, AccessRules rules);

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
    grpc::ServerWriteReactor<v1::Event>* Watch(grpc::CallbackServerContext* context,
                                               const v1::WatchRequest* request) override;
    grpc::ServerUnaryReactor* GetDaemonInfo(grpc::CallbackServerContext* context,
                                            const v1::GetDaemonInfoRequest* request, v1::DaemonInfo* reply) override;

private:
    grpc::Status CheckAccess(const grpc::CallbackServerContext& context, bool changes_something) const;
    grpc::ServerUnaryReactor* Submit(grpc::CallbackServerContext* context, bool changes_something,
                                     const std::string& fault, std::function<void(ReservationState& state)> run);
    template <typename Request, typename Reply>
    grpc::ServerUnaryReactor* Serve(grpc::CallbackServerContext* context, bool changes_something,
                                    const Request* request, Reply* reply,
                                    void (ReservationState::*operation)(const Request&, Reply*));

    Engine& engine_;
    const AccessRules rules_;
    const int64_t started_unix_millis_;
};

}    // namespace reservationd
