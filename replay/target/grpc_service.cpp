#include "replay/target/grpc_service.h"

#include <chrono>
#include <utility>

#include "messages/vesk_messages.h"

namespace v1 = reservation::v1;

using Stub = v1::ReservationService::Stub;

namespace {

constexpr std::chrono::seconds kPatience{60};

uint32_t StatusOf(v1::BeginJobReply::Result result) {
    switch (result) {
        case v1::BeginJobReply::RESULT_ADMITTED:
            return VESK_STATUS_SUCCESS;
        case v1::BeginJobReply::RESULT_LIMIT_EXCEEDED:
            return ReservationService::kLimitsExceeded;
        case v1::BeginJobReply::RESULT_MODE_DISABLED:
            return VESK_STATUS_MODE_DISABLED;
        case v1::BeginJobReply::RESULT_ALREADY_RUNNING:
            return ReservationService::kAlreadyRunning;
        default:
            return VESK_STATUS_NOT_FOUND;
    }
}

}    // namespace

GrpcService::GrpcService(std::string address, const std::shared_ptr<grpc::Channel>& channel)
    : address_(std::move(address)), stub_(v1::ReservationService::NewStub(channel)) {}

CallError GrpcService::ErrorOf(const grpc::Status& status) const {
    const bool is_gone = status.error_code() == grpc::StatusCode::UNAVAILABLE ||
                         status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
    return CallError(address_ + (is_gone ? ": no daemon answers: " : ": the daemon refuses a call: ") +
                     status.error_message());
}

template <typename Reply, typename Method, typename Request>
Reply GrpcService::Call(Method method, const Request& request) const {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + kPatience);
    Reply reply;
    const grpc::Status status = (stub_.get()->*method)(&context, request, &reply);
    if (!status.ok()) throw ErrorOf(status);
    return reply;
}

uint32_t GrpcService::CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                                        uint32_t num_trees) {
    v1::CreateReservationRequest request;
    request.set_key(key);
    request.set_pkey(pkey);
    request.mutable_guids()->Add(guids.begin(), guids.end());
    if (num_trees != VESK_LIMIT_NOT_GIVEN) request.mutable_limits()->set_num_trees(num_trees);
    const auto reply = Call<v1::ReservationReply>(&Stub::CreateReservation, request);
    return static_cast<uint32_t>(reply.status());
}

uint32_t GrpcService::UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                                        std::vector<uint64_t> removed) {
    v1::UpdateReservationRequest request;
    request.set_key(key);
    request.mutable_add_guids()->Add(added.begin(), added.end());
    request.mutable_remove_guids()->Add(removed.begin(), removed.end());
    const auto reply = Call<v1::ReservationReply>(&Stub::UpdateReservation, request);
    return static_cast<uint32_t>(reply.status());
}

uint32_t GrpcService::DeleteReservation(const std::string& key) {
    v1::DeleteReservationRequest request;
    request.set_key(key);
    const auto reply = Call<v1::ReservationReply>(&Stub::DeleteReservation, request);
    return static_cast<uint32_t>(reply.status());
}

JobVerdict GrpcService::BeginJob(const JobRequest& job) {
    v1::BeginJobRequest request;
    request.set_job_id(job.job_id);
    request.mutable_guids()->Add(job.guids.begin(), job.guids.end());
    request.set_planes(job.planes);
    request.set_trees(job.trees);
    const auto reply = Call<v1::BeginJobReply>(&Stub::BeginJob, request);
    const uint32_t status = StatusOf(reply.result());
    if (status != VESK_STATUS_SUCCESS || reply.reservation_key() == job.reservation_key) {
        return {.status = status, .reservation_id = reply.reservation_id()};
    }
    EndJob(job.job_id);    // it is in somebody else's reservation
    return {.status = VESK_STATUS_NOT_FOUND};
}

uint32_t GrpcService::EndJob(uint64_t job_id) {
    v1::EndJobRequest request;
    request.set_job_id(job_id);
    const auto reply = Call<v1::EndJobReply>(&Stub::EndJob, request);
    return reply.was_running() ? VESK_STATUS_SUCCESS : VESK_STATUS_NOT_FOUND;
}

uint32_t GrpcService::ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) {
    v1::ReportPortRequest request;
    request.set_guid(guid);
    request.set_port_num(1);
    request.mutable_pkeys()->Add(pkeys.begin(), pkeys.end());
    Call<v1::ReportPortReply>(&Stub::ReportPort, request);
    return VESK_STATUS_SUCCESS;
}

std::vector<std::string> GrpcService::ReservationKeys() const {
    const auto reply = Call<v1::ReservationReply>(&Stub::GetReservations, v1::GetReservationsRequest());
    std::vector<std::string> keys;
    for (const v1::Reservation& reservation : reply.reservations()) keys.push_back(reservation.key());
    return keys;
}

uint64_t GrpcService::NumJobs() const {
    const auto reply = Call<v1::ListJobsReply>(&Stub::ListJobs, v1::ListJobsRequest());
    return static_cast<uint64_t>(reply.jobs_size());
}

v1::DaemonInfo GrpcService::GetDaemonInfo() const {
    return Call<v1::DaemonInfo>(&Stub::GetDaemonInfo, v1::GetDaemonInfoRequest());
}
