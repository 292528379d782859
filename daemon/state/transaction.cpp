#include "daemon/state/transaction.h"

#include <absl/strings/str_cat.h>

#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "daemon/state/scratch_copy.h"

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

absl::Status TryTransaction(ReservationState& scratch, const v1::StateVersion& version,
                            const v1::TransactRequest& request, v1::TransactReply* reply) {
    absl::Status status;
    if (request.has_expected_version()) status = CheckVersion(version, request.expected_version());
    if (!status.ok()) return status;
    RunAll(scratch, request, reply);
    if (!reply->accepted() || !request.has_allowed_consequences()) return status;
    return CheckConsequences(*reply, request.allowed_consequences());
}

// What is tried first on a copy is then known to succeed: nothing needs to be taken back.
absl::Status Transact(ReservationState& state, const v1::StateVersion& version, const v1::TransactRequest& request,
                      v1::TransactReply* reply) {
    ScratchCopy copy(NamedBy(request));
    while (!copy.Advance(state)) continue;
    absl::Status status = TryTransaction(*copy.MakeState(), version, request, reply);
    if (!status.ok() || !reply->accepted()) return status;
    reply->Clear();
    RunAll(state, request, reply);
    if (!reply->accepted()) throw std::logic_error("a transaction is refused after a trial that succeeded");
    return status;
}

}    // namespace reservationd
