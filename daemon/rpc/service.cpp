#include "daemon/rpc/service.h"

#include <absl/strings/str_cat.h>

#include <chrono>
#include <memory>
#include <utility>

#include "daemon/rpc/dry_run.h"
#include "daemon/rpc/grpc_status.h"
#include "daemon/rpc/node_names.h"
#include "daemon/rpc/request_validation.h"
#include "daemon/rpc/watcher.h"
#include "daemon/state/free_nodes.h"
#include "daemon/state/node_listing.h"
#include "daemon/state/transaction.h"

namespace reservationd {

namespace {

constexpr size_t kLargeReply = 16 * 1024;    // smaller ones need no bound but that of the calls

template <typename Request>
bool IsDryRun(const Request& request) {
    if constexpr (requires { request.dry_run(); }) return request.dry_run();
    return false;
}

// A call with one reply. It owns itself, and its messages, until gRPC is done with it.
template <typename Request, typename Reply>
class UnaryCall : public grpc::ServerUnaryReactor {
public:
    // `node_table`: names the nodes. `packer`: packs the large replies. `reply_bytes`: what gRPC sends, of a call that
    // ends well.
    UnaryCall(grpc::CallbackServerContext& context, std::shared_ptr<const NodeTable> node_table, UnreadReplies& unread,
              util::WorkerThread& packer, grpc::ByteBuffer* reply_bytes)
        : nodes(std::move(node_table)),
          context_(context),
          unread_(unread),
          packer_(packer),
          reply_bytes_(reply_bytes) {}

    void Answer(const absl::Status& status) {
        is_large_ = status.ok() && reply.ByteSizeLong() >= kLargeReply;
        if (is_large_) return packer_.Submit([this] { AnswerLarge(); });
        if (status.ok()) PackReply();
        nodes.reset();    // which may be the last to hold an old table
        Finish(ToGrpc(status));
    }

    void OnDone() override {
        if (is_large_) unread_.Remove(context_);
        delete this;
    }

    std::shared_ptr<const NodeTable> nodes;    // until it is answered
    Request request;
    Reply reply;
    absl::Status outcome;

private:
    void PackReply() {
        NameNodes(*nodes, request, &reply);
        Pack(reply, reply_bytes_);
    }

    void AnswerLarge() {
        PackReply();
        nodes.reset();
        unread_.Add(context_, reply_bytes_->Length());
        Reply().Swap(&reply);    // as it may take long to be sent
        Finish(grpc::Status::OK);
    }

    grpc::CallbackServerContext& context_;
    UnreadReplies& unread_;
    util::WorkerThread& packer_;
    grpc::ByteBuffer* const reply_bytes_;
    bool is_large_ = false;
};

// A request that only reads is nothing to record.
template <typename Request, typename Reply>
void RecordChange(AuditLog& audit, grpc::CallbackServerContext& context, const Request& request, const Reply& reply,
                  const absl::Status& status) {
    if constexpr (requires { DescribeOperation(request); }) {
        audit.RecordChange([&] { return DescribeCaller(context); }, request, reply, status);
    }
}

// Also records the operations one by one, if they were carried out.
void RecordChange(AuditLog& audit, grpc::CallbackServerContext& context, const v1::TransactRequest& request,
                  const v1::TransactReply& reply, const absl::Status& status) {
    const auto caller = [&] { return DescribeCaller(context); };
    audit.RecordChange(caller, request, reply, status);
    if (!status.ok() || !reply.accepted()) return;
    for (int i = 0; i < reply.replies_size(); ++i) {
        audit.RecordChange(caller, request.operations(i), reply.replies(i), status);
    }
}

// A stream that ends before it began.
template <typename Reactor>
class Refused : public Reactor {
public:
    explicit Refused(const absl::Status& status) { this->Finish(ToGrpc(status)); }
    void OnDone() override { delete this; }
};

}    // namespace

Service::Service(Engine& engine, const AccessControl& access, AuditLog& audit)
    : engine_(engine),
      access_(access),
      audit_(audit),
      started_unix_millis_(
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count()) {}

absl::Status Service::CheckAccess(grpc::CallbackServerContext& context, const char* method, Permission permission) {
    absl::Status status = access_.Check(ClientOf(context), permission);
    if (!status.ok()) {
        audit_.RecordDenial([&] { return absl::StrCat(DescribeCaller(context), ": ", method, ": denied"); });
    }
    return status;
}

// ---- Calls with one reply ----

template <typename Request, typename Reply>
grpc::ServerUnaryReactor* Service::Submit(grpc::CallbackServerContext* context, const char* method,
                                          const grpc::ByteBuffer& request, grpc::ByteBuffer* reply,
                                          Operation<Request, Reply> run) {
    auto* const call = new UnaryCall<Request, Reply>(*context, engine_.nodes(), unread_replies_, packer_, reply);
    const absl::Status parsed = ParseMessage(request, &call->request);
    const Permission permission =
        IsDryRun(call->request) ? Permission::kRead : PermissionFor(absl::StrCat(kServicePrefix, method));
    absl::Status status = CheckAccess(*context, method, permission);
    status.Update(parsed);
    if (status.ok()) status = ValidateRequest(call->request);
    if (status.ok()) status = ResolveNodes(*call->nodes, &call->request);
    if (!status.ok()) {
        call->Answer(status);
        return call;
    }
    const auto run_for = [call, run = std::move(run)](ReservationState& state, const v1::StateVersion& version) {
        call->outcome = run(state, version, call->request, &call->reply);
    };
    const auto done = [this, call, context, permission](Refusal refusal, const std::string& reason) {
        const absl::Status outcome = refusal == Refusal::kNone ? call->outcome : ToStatus(refusal, reason);
        if (permission == Permission::kChange) RecordChange(audit_, *context, call->request, call->reply, outcome);
        call->Answer(outcome);
    };
    if constexpr (requires { call->request.dry_run(); }) {
        if (call->request.dry_run()) {
            Try(engine_, call->nodes, &call->request, run_for, done);
            return call;
        }
    }
    const bool changes_something = permission == Permission::kChange;
    const auto run_now = [this, call, run_for](ReservationState& state) {
        PickFreeNodes(state, *call->nodes, &call->request);
        run_for(state, engine_.Version());
    };
    engine_.Submit({changes_something, run_now, done});
    return call;
}

template <typename Request, typename Reply>
grpc::ServerUnaryReactor* Service::Serve(grpc::CallbackServerContext* context, const char* method,
                                         const grpc::ByteBuffer& request, grpc::ByteBuffer* reply,
                                         void (ReservationState::*operation)(const Request&, Reply*)) {
    return Submit<Request, Reply>(
        context, method, request, reply,
        [operation](ReservationState& state, const v1::StateVersion&, const Request& parsed, Reply* answer) {
            (state.*operation)(parsed, answer);
            return absl::OkStatus();
        });
}

grpc::ServerUnaryReactor* Service::CreateReservation(grpc::CallbackServerContext* context,
                                                     const grpc::ByteBuffer* request, grpc::ByteBuffer* reply) {
    return Serve(context, "CreateReservation", *request, reply, &ReservationState::CreateReservation);
}

grpc::ServerUnaryReactor* Service::UpdateReservation(grpc::CallbackServerContext* context,
                                                     const grpc::ByteBuffer* request, grpc::ByteBuffer* reply) {
    return Serve(context, "UpdateReservation", *request, reply, &ReservationState::UpdateReservation);
}

grpc::ServerUnaryReactor* Service::DeleteReservation(grpc::CallbackServerContext* context,
                                                     const grpc::ByteBuffer* request, grpc::ByteBuffer* reply) {
    return Serve(context, "DeleteReservation", *request, reply, &ReservationState::DeleteReservation);
}

grpc::ServerUnaryReactor* Service::GetReservations(grpc::CallbackServerContext* context,
                                                   const grpc::ByteBuffer* request, grpc::ByteBuffer* reply) {
    return Submit<v1::GetReservationsRequest, v1::ReservationReply>(
        context, "GetReservations", *request, reply,
        [](ReservationState& state, const v1::StateVersion& version, const v1::GetReservationsRequest& parsed,
           v1::ReservationReply* answer) {
            state.GetReservations(parsed, answer);
            *answer->mutable_version() = version;
            return absl::OkStatus();
        });
}

grpc::ServerUnaryReactor* Service::BeginJob(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                            grpc::ByteBuffer* reply) {
    return Serve(context, "BeginJob", *request, reply, &ReservationState::BeginJob);
}

grpc::ServerUnaryReactor* Service::EndJob(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                          grpc::ByteBuffer* reply) {
    return Serve(context, "EndJob", *request, reply, &ReservationState::EndJob);
}

grpc::ServerUnaryReactor* Service::ListJobs(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                            grpc::ByteBuffer* reply) {
    return Serve(context, "ListJobs", *request, reply, &ReservationState::ListJobs);
}

grpc::ServerUnaryReactor* Service::ListNodes(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                             grpc::ByteBuffer* reply) {
    return Submit<v1::ListNodesRequest, v1::ListNodesReply>(
        context, "ListNodes", *request, reply,
        [nodes = engine_.nodes()](ReservationState& state, const v1::StateVersion& version,
                                  const v1::ListNodesRequest& parsed, v1::ListNodesReply* answer) {
            reservationd::ListNodes(state, *nodes, parsed, answer);
            *answer->mutable_version() = version;
            return absl::OkStatus();
        });
}

grpc::ServerUnaryReactor* Service::ReportPort(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                              grpc::ByteBuffer* reply) {
    return Serve(context, "ReportPort", *request, reply, &ReservationState::ReportPort);
}

grpc::ServerUnaryReactor* Service::Transact(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                            grpc::ByteBuffer* reply) {
    return Submit<v1::TransactRequest, v1::TransactReply>(
        context, "Transact", *request, reply,
        [](ReservationState& state, const v1::StateVersion& version, const v1::TransactRequest& parsed,
           v1::TransactReply* answer) {
            return (parsed.dry_run() ? TryTransaction : reservationd::Transact)(state, version, parsed, answer);
        });
}

grpc::ServerUnaryReactor* Service::GetDaemonInfo(grpc::CallbackServerContext* context, const grpc::ByteBuffer* request,
                                                 grpc::ByteBuffer* reply) {
    return Submit<v1::GetDaemonInfoRequest, v1::DaemonInfo>(
        context, "GetDaemonInfo", *request, reply,
        [this](ReservationState&, const v1::StateVersion&, const v1::GetDaemonInfoRequest&, v1::DaemonInfo* answer) {
            answer->set_version(RESERVATIOND_VERSION);
            answer->set_started_unix_millis(started_unix_millis_);
            engine_.Describe(answer);
            return absl::OkStatus();
        });
}

// ---- Streams ----

absl::StatusOr<StreamLimit::Slot> Service::OpenStream(grpc::CallbackServerContext& context, const char* method) {
    const absl::Status status = CheckAccess(context, method, PermissionFor(absl::StrCat(kServicePrefix, method)));
    if (!status.ok()) return status;
    return stream_limit_.Open(context);
}

grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* Service::Session(grpc::CallbackServerContext* context) {
    absl::StatusOr<StreamLimit::Slot> slot = OpenStream(*context, "Session");
    if (!slot.ok()) return new Refused<grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>>(slot.status());
    return sessions_.Begin(engine_, access_, audit_, *context, *std::move(slot));
}

grpc::ServerWriteReactor<grpc::ByteBuffer>* Service::Watch(grpc::CallbackServerContext* context,
                                                           const grpc::ByteBuffer* request) {
    v1::WatchRequest parsed;
    absl::StatusOr<StreamLimit::Slot> slot = OpenStream(*context, "Watch");
    absl::Status status = slot.status();
    if (status.ok()) status = ParseMessage(*request, &parsed);
    if (!status.ok()) return new Refused<grpc::ServerWriteReactor<grpc::ByteBuffer>>(status);
    const auto watcher = std::make_shared<Watcher>(engine_.events(), access_, ClientOf(*context), *std::move(slot));
    watcher->Start(parsed, engine_.epoch());
    return watcher.get();
}

}    // namespace reservationd
