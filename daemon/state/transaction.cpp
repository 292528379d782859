#include "daemon/state/transaction.h"

#include <absl/strings/str_cat.h>

#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace reservationd {

namespace {

bool IsSuccess(const v1::OperationReply& reply) {
    switch (reply.reply_case()) {
        case v1::OperationReply::kReservation:
            return reply.reservation().status() == v1::STATUS_SUCCESS;
        case v1::OperationReply::kBeginJob:
            return reply.begin_job().result() == v1::BeginJobReply::RESULT_ADMITTED;
        case v1::OperationReply::kEndJob:
            return true;
        case v1::OperationReply::REPLY_NOT_SET:
            break;
    }
    return false;
}

void AddNames(const v1::Operation& operation, NamedThings& named) {
    const auto add_guids = [&named](const google::protobuf::RepeatedField<uint64_t>& guids) {
        named.guids.insert(named.guids.end(), guids.begin(), guids.end());
    };
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            named.keys.insert(operation.create_reservation().key());
            return add_guids(operation.create_reservation().guids());
        case v1::Operation::kUpdateReservation:
            named.keys.insert(operation.update_reservation().key());
            return add_guids(operation.update_reservation().add_guids());
        case v1::Operation::kDeleteReservation:
            named.keys.insert(operation.delete_reservation().key());
            return;
        case v1::Operation::kBeginJob:
            named.job_ids.push_back(operation.begin_job().job_id());
            return add_guids(operation.begin_job().guids());
        case v1::Operation::kEndJob:
            named.job_ids.push_back(operation.end_job().job_id());
            return;
        case v1::Operation::OPERATION_NOT_SET:
            return;
    }
}

std::unique_ptr<ReservationState> MakeScratchCopy(const ReservationState& state, const v1::TransactRequest& request) {
    NamedThings named;
    for (const v1::Operation& operation : request.operations()) AddNames(operation, named);
    return state.MakeScratchCopy(std::move(named));
}

void RunAll(ReservationState& state, const v1::TransactRequest& request, v1::TransactReply* reply) {
    reply->set_accepted(true);
    for (const v1::Operation& operation : request.operations()) {
        RunOperation(state, operation, reply->add_replies());
        if (IsSuccess(reply->replies().at(reply->replies_size() - 1))) continue;
        reply->set_accepted(false);
        return;
    }
}

absl::Status CheckVersion(const v1::StateVersion& version, const v1::StateVersion& expected) {
    if (expected.epoch() == version.epoch() && expected.sequence() == version.sequence()) return absl::OkStatus();
    return absl::AbortedError(absl::StrCat("expected_version is ", expected.sequence(),
                                           ", but meanwhile the newest event is ", version.sequence(),
                                           expected.epoch() == version.epoch() ? "" : " of another epoch"));
}

absl::Status CheckConsequences(const v1::TransactReply& reply, const v1::Consequences& allowed) {
    const auto& keys = allowed.deleted_reservation_keys();
    const std::set<std::string> allowed_keys(keys.begin(), keys.end());
    const std::set<uint64_t> allowed_job_ids(allowed.ended_job_ids().begin(), allowed.ended_job_ids().end());
    for (const v1::OperationReply& operation : reply.replies()) {
        const v1::Consequences& consequences = operation.reservation().consequences();
        for (const std::string& key : consequences.deleted_reservation_keys()) {
            if (allowed_keys.contains(key)) continue;
            return absl::AbortedError(
                absl::StrCat("reservation '", key, "' would be deleted, which allowed_consequences do not say"));
        }
        for (const uint64_t job_id : consequences.ended_job_ids()) {
            if (allowed_job_ids.contains(job_id)) continue;
            return absl::AbortedError(
                absl::StrCat("job ", job_id, " would be ended, which allowed_consequences do not say"));
        }
    }
    return absl::OkStatus();
}

}    // namespace

void RunOperation(ReservationState& state, const v1::Operation& operation, v1::OperationReply* reply) {
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            return state.CreateReservation(operation.create_reservation(), reply->mutable_reservation());
        case v1::Operation::kUpdateReservation:
            return state.UpdateReservation(operation.update_reservation(), reply->mutable_reservation());
        case v1::Operation::kDeleteReservation:
            return state.DeleteReservation(operation.delete_reservation(), reply->mutable_reservation());
        case v1::Operation::kBeginJob:
            return state.BeginJob(operation.begin_job(), reply->mutable_begin_job());
        case v1::Operation::kEndJob:
            return state.EndJob(operation.end_job(), reply->mutable_end_job());
        case v1::Operation::OPERATION_NOT_SET:
            return;
    }
}

// What is tried first on a copy is then known to succeed: nothing needs to be taken back.
absl::Status Transact(ReservationState& state, const v1::StateVersion& version, const v1::TransactRequest& request,
                      v1::TransactReply* reply) {
    absl::Status status;
    if (request.has_expected_version()) status = CheckVersion(version, request.expected_version());
    if (!status.ok()) return status;
    RunAll(*MakeScratchCopy(state, request), request, reply);
    if (!reply->accepted()) return status;
    if (request.has_allowed_consequences()) status = CheckConsequences(*reply, request.allowed_consequences());
    if (!status.ok() || request.dry_run()) return status;
    reply->Clear();
    RunAll(state, request, reply);
    if (!reply->accepted()) throw std::logic_error("a transaction is refused after a trial that succeeded");
    return status;
}

}    // namespace reservationd
