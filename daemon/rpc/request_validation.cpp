#include "daemon/rpc/request_validation.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_cat.h>

#include <cstdint>
#include <limits>
#include <string_view>

#include "util/limits.h"
#include "util/text.h"

namespace reservationd {

namespace {

constexpr uint64_t kMaxUint64 = std::numeric_limits<uint64_t>::max();

absl::Status ValidateKeyField(std::string_view key) {
    absl::Status status = util::ValidateKey(key);
    if (status.ok()) return status;
    return absl::InvalidArgumentError(absl::StrCat("key '", util::TruncateForMessage(key), "' ", status.message(),
                                                   ", so it cannot name a reservation file"));
}

absl::Status ValidateNumber(const char* field, uint64_t value, uint64_t min, uint64_t max) {
    if (value >= min && value <= max) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat(field, " is ", value, value < min ? ", at least " : ", at most ",
                                                   value < min ? min : max, " is possible"));
}

// A larger number of trees would be read as the largest one, "no limit".
absl::Status ValidateLimits(const v1::Limits& limits) {
    if (!limits.has_num_trees() || limits.num_trees() == util::kLimitNotGiven) return absl::OkStatus();
    return ValidateNumber("limits.num_trees", limits.num_trees(), 0, util::kNoTreesLimit);
}

// Keeps the first fault.
template <typename... Statuses>
absl::Status FirstError(absl::Status first, const Statuses&... others) {
    (first.Update(others), ...);
    return first;
}

}    // namespace

absl::Status ValidateRequest(const v1::CreateReservationRequest& request) {
    return FirstError(ValidateKeyField(request.key()), ValidateNumber("pkey", request.pkey(), 0, util::kMaxPkey),
                      ValidateLimits(request.limits()));
}

absl::Status ValidateRequest(const v1::UpdateReservationRequest& request) { return ValidateKeyField(request.key()); }

absl::Status ValidateRequest(const v1::DeleteReservationRequest& request) { return ValidateKeyField(request.key()); }

absl::Status ValidateRequest(const v1::GetReservationsRequest& request) { return ValidateKeyField(request.key()); }

absl::Status ValidateRequest(const v1::BeginJobRequest& request) {
    return FirstError(ValidateNumber("job_id", request.job_id(), 1, kMaxUint64),
                      ValidateNumber("planes", request.planes(), 0, util::kMaxPlanes),
                      ValidateNumber("trees", request.trees(), 1, util::kMaxTrees));
}

absl::Status ValidateRequest(const v1::EndJobRequest& request) {
    return ValidateNumber("job_id", request.job_id(), 1, kMaxUint64);
}

absl::Status ValidateRequest(const v1::ListJobsRequest& request) {
    uint64_t last_listed = 0;
    if (!request.page_token().empty() && !absl::SimpleAtoi(request.page_token(), &last_listed)) {
        return absl::InvalidArgumentError(
            absl::StrCat("page_token '", util::TruncateForMessage(request.page_token()), "' comes from no reply"));
    }
    return ValidateKeyField(request.reservation_key());
}

absl::Status ValidateRequest(const v1::ReportPortRequest& request) {
    absl::Status status = FirstError(ValidateNumber("guid", request.guid(), 1, kMaxUint64),
                                     ValidateNumber("port_num", request.port_num(), 0, util::kMaxPortNumber));
    for (const uint32_t pkey : request.pkeys()) status.Update(ValidateNumber("pkeys", pkey, 0, util::kMaxPkey));
    return status;
}

absl::Status ValidateRequest(const v1::GetDaemonInfoRequest&) { return absl::OkStatus(); }

absl::Status ValidateRequest(const v1::Operation& operation) {
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            return ValidateRequest(operation.create_reservation());
        case v1::Operation::kUpdateReservation:
            return ValidateRequest(operation.update_reservation());
        case v1::Operation::kDeleteReservation:
            return ValidateRequest(operation.delete_reservation());
        case v1::Operation::kBeginJob:
            return ValidateRequest(operation.begin_job());
        case v1::Operation::kEndJob:
            return ValidateRequest(operation.end_job());
        case v1::Operation::OPERATION_NOT_SET:
            break;
    }
    return absl::InvalidArgumentError("the operation is missing, or unknown to this daemon");
}

absl::Status ValidateRequest(const v1::TransactRequest& request) {
    for (int i = 0; i < request.operations_size(); ++i) {
        absl::Status status = ValidateRequest(request.operations(i));
        if (status.ok() && IsDryRun(request.operations(i))) {
            status = absl::InvalidArgumentError("dry_run is set, which only the whole transaction can have");
        }
        if (!status.ok()) return {status.code(), absl::StrCat("operations[", i, "]: ", status.message())};
    }
    return absl::OkStatus();
}

bool IsDryRun(const v1::Operation& operation) {
    return operation.create_reservation().dry_run() || operation.update_reservation().dry_run() ||
           operation.delete_reservation().dry_run();
}

}    // namespace reservationd
