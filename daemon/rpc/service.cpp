#include "daemon/rpc/service.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <utility>

#include "daemon/rpc/request_check.h"

namespace reservationd {

namespace {

constexpr char kCommonNameProperty[] = "x509_common_name";

grpc::Status StatusOf(Refusal refusal, const std::string& reason) {
    switch (refusal) {
        case Refusal::kNone:
            return grpc::Status::OK;
        case Refusal::kStopping:
            return {grpc::StatusCode::UNAVAILABLE, reason};
        case Refusal::kNotStored:
        case Refusal::kTooManyCalls:
            break;
    }
    return {grpc::StatusCode::RESOURCE_EXHAUSTED, reason};
}

// Sends events to one client as fast as it takes them, one at a time, so that it needs the memory of one. It owns
// itself until gRPC is done with it.
class Watcher : public grpc::ServerWriteReactor<v1::Event>,
                public EventLog::Reader,
                public std::enable_shared_from_this<Watcher> {
public:
    explicit Watcher(EventLog& log) : log_(log) {}

    // Starts at the event with this number; at 0 with the next one to happen.
    void Start(uint64_t from_sequence) {
        const std::lock_guard lock(mutex_);
        self_ = shared_from_this();
        next_ = from_sequence != 0 ? from_sequence : log_.newest() + 1;
        if (next_ < log_.oldest() || next_ > log_.newest() + 1) return EndOutOfRange();
        event_.set_sequence(next_);
        StartWrite(&event_);
    }

    void Refuse(const grpc::Status& status) {
        self_ = shared_from_this();
        Finish(status);
    }

    void OnWriteDone(bool ok) override {
        const std::lock_guard lock(mutex_);
        if (!ok) return End(grpc::Status::CANCELLED);
        Advance();
    }

    void OnCancel() override {
        const std::lock_guard lock(mutex_);
        if (!is_waiting_) return;
        log_.Forget(self_);
        End(grpc::Status::CANCELLED);
    }

    void OnDone() override { const std::shared_ptr<Watcher> last = std::move(self_); }

    void Wake() override {
        const std::lock_guard lock(mutex_);
        if (!is_ended_) Advance();
    }

private:
    void Advance() {
        is_waiting_ = false;
        switch (log_.Read(next_, &event_, self_)) {
            case EventLog::Outcome::kEvent:
                ++next_;
                return StartWrite(&event_);
            case EventLog::Outcome::kNotYet:
                is_waiting_ = true;
                return;
            case EventLog::Outcome::kGone:
                return EndOutOfRange();
            case EventLog::Outcome::kClosed:
                return End({grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"});
        }
    }

    void End(const grpc::Status& status) {
        if (!std::exchange(is_ended_, true)) Finish(status);
    }

    void EndOutOfRange() {
        End({grpc::StatusCode::OUT_OF_RANGE,
             "event " + std::to_string(next_) + " is not there; the oldest one kept is " +
                 std::to_string(log_.oldest()) + ", the next one to happen " + std::to_string(log_.newest() + 1)});
    }

    EventLog& log_;
    std::shared_ptr<Watcher> self_;
    std::mutex mutex_;    // guards what follows
    v1::Event event_;
    uint64_t next_ = 0;
    bool is_waiting_ = false;
    bool is_ended_ = false;
};

}    // namespace

Service::Service(Engine& engine, AccessRules rules)
    : engine_(engine),
      rules_(std::move(rules)),
      started_unix_millis_(
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count()) {}

// ---- Who may ask ----

grpc::Status Service::CheckAccess(const grpc::CallbackServerContext& context, bool changes_something) const {
    if (context.peer().starts_with("unix:")) return grpc::Status::OK;
    const auto names = context.auth_context()->FindPropertyValues(kCommonNameProperty);
    const std::string name = names.empty() ? "" : std::string(names.front().data(), names.front().size());
    if (rules_.full_access_names.contains(name)) return grpc::Status::OK;
    const bool may_read = rules_.read_only_names.contains(name);
    if (may_read && !changes_something) return grpc::Status::OK;
    return {grpc::StatusCode::PERMISSION_DENIED,
            "the certificate's common name '" + name + "' allows " + (may_read ? "reading only" : "nothing here")};
}

// ---- Calls ----

grpc::ServerUnaryReactor* Service::Submit(grpc::CallbackServerContext* context, bool changes_something,
                                          const std::string& fault, std::function<void(ReservationState&)> run) {
    grpc::ServerUnaryReactor* const reactor = context->DefaultReactor();
    const grpc::Status access = CheckAccess(*context, changes_something);
    if (!access.ok()) {
        reactor->Finish(access);
    } else if (!fault.empty()) {
        reactor->Finish({grpc::StatusCode::INVALID_ARGUMENT, fault});
    } else {
        engine_.Submit({changes_something, std::move(run), [reactor](Refusal refusal, const std::string& reason) {
                            reactor->Finish(StatusOf(refusal, reason));
                        }});
    }
    return reactor;
}

template <typename Request, typename Reply>
grpc::ServerUnaryReactor* Service::Serve(grpc::CallbackServerContext* context, bool changes_something,
                                         const Request* request, Reply* reply,
                                         void (ReservationState::*operation)(const Request&, Reply*)) {
    return Submit(context, changes_something, FaultOf(*request), [request, reply, operation](ReservationState& state) {
        reply->Clear();
        (state.*operation)(*request, reply);
    });
}

grpc::ServerUnaryReactor* Service::CreateReservation(grpc::CallbackServerContext* context,
                                                     const v1::CreateReservationRequest* request,
                                                     v1::ReservationReply* reply) {
    return Serve(context, !request->dry_run(), request, reply, &ReservationState::CreateReservation);
}

grpc::ServerUnaryReactor* Service::UpdateReservation(grpc::CallbackServerContext* context,
                                                     const v1::UpdateReservationRequest* request,
                                                     v1::ReservationReply* reply) {
    return Serve(context, !request->dry_run(), request, reply, &ReservationState::UpdateReservation);
}

grpc::ServerUnaryReactor* Service::DeleteReservation(grpc::CallbackServerContext* context,
                                                     const v1::DeleteReservationRequest* request,
                                                     v1::ReservationReply* reply) {
    return Serve(context, !request->dry_run(), request, reply, &ReservationState::DeleteReservation);
}

grpc::ServerUnaryReactor* Service::GetReservations(grpc::CallbackServerContext* context,
                                                   const v1::GetReservationsRequest* request,
                                                   v1::ReservationReply* reply) {
    return Serve(context, false, request, reply, &ReservationState::GetReservations);
}

grpc::ServerUnaryReactor* Service::BeginJob(grpc::CallbackServerContext* context, const v1::BeginJobRequest* request,
                                            v1::BeginJobReply* reply) {
    return Serve(context, true, request, reply, &ReservationState::BeginJob);
}

grpc::ServerUnaryReactor* Service::EndJob(grpc::CallbackServerContext* context, const v1::EndJobRequest* request,
                                          v1::EndJobReply* reply) {
    return Serve(context, true, request, reply, &ReservationState::EndJob);
}

grpc::ServerUnaryReactor* Service::ListJobs(grpc::CallbackServerContext* context, const v1::ListJobsRequest* request,
                                            v1::ListJobsReply* reply) {
    return Serve(context, false, request, reply, &ReservationState::ListJobs);
}

grpc::ServerUnaryReactor* Service::ReportPort(grpc::CallbackServerContext* context,
                                              const v1::ReportPortRequest* request, v1::ReportPortReply* reply) {
    return Serve(context, true, request, reply, &ReservationState::ReportPort);
}

grpc::ServerUnaryReactor* Service::GetDaemonInfo(grpc::CallbackServerContext* context, const v1::GetDaemonInfoRequest*,
                                                 v1::DaemonInfo* reply) {
    return Submit(context, false, "", [this, reply](ReservationState&) {
        reply->Clear();
        reply->set_version(RESERVATIOND_VERSION);
        reply->set_started_unix_millis(started_unix_millis_);
        engine_.Describe(reply);
    });
}

grpc::ServerWriteReactor<v1::Event>* Service::Watch(grpc::CallbackServerContext* context,
                                                    const v1::WatchRequest* request) {
    const auto watcher = std::make_shared<Watcher>(engine_.events());
    const grpc::Status access = CheckAccess(*context, false);
    if (access.ok()) {
        watcher->Start(request->from_sequence());
    } else {
        watcher->Refuse(access);
    }
    return watcher.get();
}

}    // namespace reservationd
