#include "replay/target/daemon_client.h"

#include <absl/status/status.h>
#include <absl/strings/str_cat.h>

#include "messages/vesk_messages.h"

namespace replay {

namespace v1 = client::v1;

namespace {

uint32_t StatusOf(v1::BeginJobReply::Result result) {
    switch (result) {
        case v1::BeginJobReply::RESULT_ADMITTED:
            return VESK_STATUS_SUCCESS;
        case v1::BeginJobReply::RESULT_LIMIT_EXCEEDED:
            return TargetClient::kLimitsExceeded;
        case v1::BeginJobReply::RESULT_MODE_DISABLED:
            return VESK_STATUS_MODE_DISABLED;
        case v1::BeginJobReply::RESULT_ALREADY_RUNNING:
            return TargetClient::kAlreadyRunning;
        default:
            return VESK_STATUS_NOT_FOUND;
    }
}

}    // namespace

// Before its callers, which learn from it what it returns.
template <typename Request>
auto DaemonClient::Call(const Request& request) const {
    auto reply = connection_->Call(request);
    if (!reply.ok()) throw ErrorFor(reply.status());
    return *std::move(reply);
}

uint32_t DaemonClient::CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                                         uint32_t num_trees) {
    v1::Operation operation;
    v1::CreateReservationRequest& request = *operation.mutable_create_reservation();
    request.set_key(key);
    request.set_pkey(pkey);
    request.mutable_guids()->Add(guids.begin(), guids.end());
    if (num_trees != VESK_LIMIT_NOT_GIVEN) request.mutable_limits()->set_num_trees(num_trees);
    return static_cast<uint32_t>(Perform(operation).reservation().status());
}

uint32_t DaemonClient::UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                                         std::vector<uint64_t> removed) {
    v1::Operation operation;
    v1::UpdateReservationRequest& request = *operation.mutable_update_reservation();
    request.set_key(key);
    request.mutable_add_guids()->Add(added.begin(), added.end());
    request.mutable_remove_guids()->Add(removed.begin(), removed.end());
    return static_cast<uint32_t>(Perform(operation).reservation().status());
}

uint32_t DaemonClient::DeleteReservation(const std::string& key) {
    v1::Operation operation;
    operation.mutable_delete_reservation()->set_key(key);
    return static_cast<uint32_t>(Perform(operation).reservation().status());
}

BeginJobResult DaemonClient::BeginJob(const JobRequest& job) {
    v1::Operation operation;
    v1::BeginJobRequest& request = *operation.mutable_begin_job();
    request.set_job_id(job.job_id);
    request.mutable_guids()->Add(job.guids.begin(), job.guids.end());
    request.set_planes(job.planes);
    request.set_trees(job.trees);
    const v1::BeginJobReply reply = Perform(operation).begin_job();
    const uint32_t status = StatusOf(reply.result());
    if (status != VESK_STATUS_SUCCESS || reply.reservation_key() == job.reservation_key) {
        return {.status = status, .reservation_id = reply.reservation_id()};
    }
    EndJob(job.job_id);    // it is in another tenant's reservation
    return {.status = VESK_STATUS_NOT_FOUND};
}

uint32_t DaemonClient::EndJob(uint64_t job_id) {
    v1::Operation operation;
    operation.mutable_end_job()->set_job_id(job_id);
    return Perform(operation).end_job().was_running() ? VESK_STATUS_SUCCESS : VESK_STATUS_NOT_FOUND;
}

uint32_t DaemonClient::ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) {
    v1::ReportPortRequest request;
    request.set_guid(guid);
    request.set_port_num(1);
    request.mutable_pkeys()->Add(pkeys.begin(), pkeys.end());
    Call(request);
    return VESK_STATUS_SUCCESS;
}

std::vector<std::string> DaemonClient::ReservationKeys() const {
    std::vector<std::string> keys;
    v1::GetReservationsRequest request;
    do {
        const v1::ReservationReply reply = Call(request);
        for (const v1::Reservation& reservation : reply.reservations()) keys.push_back(reservation.key());
        request.set_page_token(reply.next_page_token());
    } while (!request.page_token().empty());
    return keys;
}

v1::DaemonInfo DaemonClient::GetDaemonInfo() const { return Call(v1::GetDaemonInfoRequest()); }

std::unique_ptr<client::EventStream> DaemonClient::Watch(uint64_t from_sequence) const {
    v1::WatchRequest request;
    request.set_from_sequence(from_sequence);
    return connection_->Watch(request);
}

std::runtime_error DaemonClient::ErrorFor(const absl::Status& status) const {
    const bool is_gone = absl::IsUnavailable(status) || absl::IsDeadlineExceeded(status);
    return std::runtime_error(absl::StrCat(
        connection_->address(), is_gone ? ": no daemon answers: " : ": the daemon refuses a call: ", status.message()));
}

v1::OperationReply DaemonClient::Perform(const v1::Operation& operation) const {
    if (session_ == nullptr) return PerformAsCall(operation);
    absl::StatusOr<v1::OperationReply> reply = session_->Call(operation);
    if (!reply.ok()) throw ErrorFor(reply.status());
    return *std::move(reply);
}

v1::OperationReply DaemonClient::PerformAsCall(const v1::Operation& operation) const {
    v1::OperationReply reply;
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            *reply.mutable_reservation() = Call(operation.create_reservation());
            break;
        case v1::Operation::kUpdateReservation:
            *reply.mutable_reservation() = Call(operation.update_reservation());
            break;
        case v1::Operation::kDeleteReservation:
            *reply.mutable_reservation() = Call(operation.delete_reservation());
            break;
        case v1::Operation::kBeginJob:
            *reply.mutable_begin_job() = Call(operation.begin_job());
            break;
        case v1::Operation::kEndJob:
            *reply.mutable_end_job() = Call(operation.end_job());
            break;
        case v1::Operation::OPERATION_NOT_SET:
            break;
    }
    return reply;
}

}    // namespace replay
