// The reservation service: checks the client's permission, then the request, and hands the call to the engine.

#pragma once

#include <absl/status/statusor.h>
#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <functional>

#include "daemon/engine/engine.h"
#include "daemon/rpc/access.h"
#include "daemon/rpc/audit_log.h"
#include "daemon/rpc/session.h"
#include "daemon/rpc/stream_limit.h"
#include "daemon/rpc/unread_replies.h"
#include "daemon/state/reservation_state.h"
#include "reservation/v1/reservation.grpc.pb.h"
#include "util/worker_thread.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Messages come and go as they are on the network, so that a malformed one is answered here and not by gRPC.
using RawService = v1::ReservationService::WithRawCallbackMethod_GetDaemonInfo<
    v1::ReservationService::WithRawCallbackMethod_Watch<v1::ReservationService::WithRawCallbackMethod_Session<
        v1::ReservationService::WithRawCallbackMethod_Transact<v1::ReservationService::WithRawCallbackMethod_ReportPort<
            v1::ReservationService::WithRawCallbackMethod_ListNodes<
                v1::ReservationService::WithRawCallbackMethod_ListJobs<
                    v1::ReservationService::WithRawCallbackMethod_EndJob<
                        v1::ReservationService::WithRawCallbackMethod_BeginJob<
                            v1::ReservationService::WithRawCallbackMethod_GetReservations<
                                v1::ReservationService::WithRawCallbackMethod_DeleteReservation<
                                    v1::ReservationService::WithRawCallbackMethod_UpdateReservation<
                                        v1::ReservationService::WithRawCallbackMethod_CreateReservation<
                                            v1::ReservationService::Service>>>>>>>>>>>>>;

class Service final : public RawService {
public:
    // All must outlive the calls.
    Service(Engine& engine, const AccessControl& access, AuditLog& audit);

    grpc::ServerUnaryReactor* CreateReservation(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                                grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* UpdateReservation(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                                grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* DeleteReservation(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                                grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* GetReservations(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                              grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* BeginJob(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                       grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* EndJob(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                     grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* ListJobs(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                       grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* ListNodes(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                        grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* ReportPort(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                         grpc::ByteBuffer* reply) override;
    grpc::ServerUnaryReactor* Transact(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                       grpc::ByteBuffer* reply) override;
    grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* Session(grpc::CallbackServerContext* context) override;
    grpc::ServerWriteReactor<grpc::ByteBuffer>* Watch(grpc::CallbackServerContext* context,
                                                      const grpc::ByteBuffer* request) override;
    grpc::ServerUnaryReactor* GetDaemonInfo(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                            grpc::ByteBuffer* reply) override;

    // Lets the sessions end when what they have under way is answered.
    void EndSessions() { sessions_.End(); }

private:
    template <typename Request, typename Reply>
    using Operation = std::function<absl::Status(ReservationState& state, const v1::StateVersion& version,
                                                 const Request& request, Reply* reply)>;

    template <typename Request, typename Reply>
    grpc::ServerUnaryReactor* Submit(grpc::CallbackServerContext* context, const char* method,
                                     const grpc::ByteBuffer& request, grpc::ByteBuffer* reply,
                                     Operation<Request, Reply> run);
    template <typename Request, typename Reply>
    grpc::ServerUnaryReactor* Serve(grpc::CallbackServerContext* context, const char* method,
                                    const grpc::ByteBuffer& request, grpc::ByteBuffer* reply,
                                    void (ReservationState::*operation)(const Request&, Reply*));
    absl::Status CheckAccess(grpc::CallbackServerContext& context, const char* method, Permission permission);
    absl::StatusOr<StreamLimit::Slot> OpenStream(grpc::CallbackServerContext& context, const char* method);

    Engine& engine_;
    const AccessControl& access_;
    AuditLog& audit_;
    const int64_t started_unix_millis_;
    StreamLimit stream_limit_;
    UnreadReplies unread_replies_;
    util::WorkerThread packer_;    // of large replies
    SessionList sessions_;
};

}    // namespace reservationd
