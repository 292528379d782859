// The service as gRPC calls it: checks who asks and what, and leaves the rest to the engine.

#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "daemon/engine.h"
#include "reservation/v1/reservation.grpc.pb.h"

namespace reservationd {

// Who may do what over TCP, by the common name of the client's certificate. On the Unix socket everybody may do
// everything: its mode says who can connect.
struct AccessRules {
    std::set<std::string> full_access_names;
    std::set<std::string> read_only_names;
};

class Service final : public reservation::v1::ReservationService::CallbackService {
public:
    // `engine` must outlive the calls.
    Service(Engine& engine, AccessRules rules);

    grpc::ServerUnaryReactor* CreateReservation(grpc::CallbackServerContext* context,
                                                const reservation::v1::CreateReservationRequest* request,
                                                reservation::v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* UpdateReservation(grpc::CallbackServerContext* context,
                                                const reservation::v1::UpdateReservationRequest* request,
                                                reservation::v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* DeleteReservation(grpc::CallbackServerContext* context,
                                                const reservation::v1::DeleteReservationRequest* request,
                                                reservation::v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* GetReservations(grpc::CallbackServerContext* context,
                                              const reservation::v1::GetReservationsRequest* request,
                                              reservation::v1::ReservationReply* reply) override;
    grpc::ServerUnaryReactor* BeginJob(grpc::CallbackServerContext* context,
                                       const reservation::v1::BeginJobRequest* request,
                                       reservation::v1::BeginJobReply* reply) override;
    grpc::ServerUnaryReactor* EndJob(grpc::CallbackServerContext* context,
                                     const reservation::v1::EndJobRequest* request,
                                     reservation::v1::EndJobReply* reply) override;
    grpc::ServerUnaryReactor* ListJobs(grpc::CallbackServerContext* context,
                                       const reservation::v1::ListJobsRequest* request,
                                       reservation::v1::ListJobsReply* reply) override;
    grpc::ServerUnaryReactor* ReportPort(grpc::CallbackServerContext* context,
                                         const reservation::v1::ReportPortRequest* request,
                                         reservation::v1::ReportPortReply* reply) override;
    grpc::ServerWriteReactor<reservation::v1::Event>* Watch(grpc::CallbackServerContext* context,
                                                            const reservation::v1::WatchRequest* request) override;
    grpc::ServerUnaryReactor* GetDaemonInfo(grpc::CallbackServerContext* context,
                                            const reservation::v1::GetDaemonInfoRequest* request,
                                            reservation::v1::DaemonInfo* reply) override;

private:
    grpc::Status CheckAccess(const grpc::CallbackServerContext& context, bool changes_something) const;
    grpc::ServerUnaryReactor* Serve(grpc::CallbackServerContext* context, bool changes_something,
                                    const std::string& fault, std::function<void(ReservationBook& book)> run);

    Engine& engine_;
    const AccessRules rules_;
    const int64_t started_unix_millis_;
};

}    // namespace reservationd
