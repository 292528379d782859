#include "daemon/rpc/request_validation.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_cat.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/unknown_field_set.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/slice.h>

#include <cstdint>
#include <limits>
#include <string>
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

// Of a listing whose pages are known by numbers.
absl::Status ValidatePageNumber(const std::string& page_token) {
    uint64_t number = 0;
    if (page_token.empty() || absl::SimpleAtoi(page_token, &number)) return absl::OkStatus();
    return absl::InvalidArgumentError(
        absl::StrCat("page_token '", util::TruncateForMessage(page_token), "' comes from no reply"));
}

absl::Status ValidateStart(int64_t start_unix_millis) {
    if (start_unix_millis >= 0) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat("start_unix_millis is ", start_unix_millis, ", before 1970"));
}

// A larger number of trees would be read as the largest one, "no limit".
absl::Status ValidateLimits(const v1::Limits& limits) {
    if (!limits.has_num_trees() || limits.num_trees() == util::kLimitNotGiven) return absl::OkStatus();
    return ValidateNumber("limits.num_trees", limits.num_trees(), 0, util::kNoTreesLimit);
}

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

// Returns the path of the first field, in a message of this type, whose text is not UTF-8; "" when there is none.
std::string FindFieldThatIsNotUtf8(const Descriptor& type, const std::string& message) {
    UnknownFieldSet fields;
    if (!fields.ParseFromString(message)) return "";
    for (int i = 0; i < fields.field_count(); ++i) {
        const FieldDescriptor* const field = type.FindFieldByNumber(fields.field(i).number());
        if (field == nullptr || fields.field(i).type() != UnknownField::TYPE_LENGTH_DELIMITED) continue;
        const std::string& value = fields.field(i).length_delimited();
        if (field->type() == FieldDescriptor::TYPE_STRING && !util::IsUtf8(value)) return field->name();
        if (field->type() != FieldDescriptor::TYPE_MESSAGE) continue;
        const std::string inner = FindFieldThatIsNotUtf8(*field->message_type(), value);
        if (!inner.empty()) return absl::StrCat(field->name(), ".", inner);
    }
    return "";
}

// Keeps the first fault.
template <typename... Statuses>
absl::Status FirstError(absl::Status first, const Statuses&... others) {
    (first.Update(others), ...);
    return first;
}

}    // namespace

absl::Status ParseMessage(const grpc::ByteBuffer& bytes, google::protobuf::Message* message) {
    grpc::ByteBuffer unread(bytes);
    if (grpc::GenericDeserialize<grpc::ProtoBufferReader, google::protobuf::Message>(&unread, message).ok()) {
        return absl::OkStatus();
    }
    grpc::Slice slice;
    if (!bytes.DumpToSingleSlice(&slice).ok()) return absl::InvalidArgumentError("the message cannot be unpacked");
    const std::string field =
        FindFieldThatIsNotUtf8(*message->GetDescriptor(), {reinterpret_cast<const char*>(slice.begin()), slice.size()});
    return absl::InvalidArgumentError(field.empty()
                                          ? absl::StrCat("the message is no ", message->GetDescriptor()->full_name())
                                          : absl::StrCat(field, " is not UTF-8"));
}

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
                      ValidateNumber("trees", request.trees(), 1, util::kMaxTrees),
                      ValidateStart(request.start_unix_millis()), ValidateKeyField(request.reservation_key()));
}

absl::Status ValidateRequest(const v1::EndJobRequest& request) {
    return FirstError(ValidateNumber("job_id", request.job_id(), 1, kMaxUint64),
                      ValidateStart(request.start_unix_millis()));
}

absl::Status ValidateRequest(const v1::ListJobsRequest& request) {
    return FirstError(ValidatePageNumber(request.page_token()), ValidateKeyField(request.reservation_key()));
}

absl::Status ValidateRequest(const v1::ListNodesRequest& request) { return ValidatePageNumber(request.page_token()); }

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
