#include "daemon/rpc/audit_log.h"

#include <absl/strings/str_cat.h>
#include <absl/time/clock.h>

#include "daemon/log_sink.h"
#include "daemon/rpc/access.h"
#include "util/text.h"

namespace reservationd {

namespace {

std::string Quoted(const char* method, const std::string& key) {
    return absl::StrCat(method, " '", util::Printable(key), "'");
}

}    // namespace

std::string DescribeCaller(grpc::CallbackServerContext& context) {
    const Client client = ClientOf(context);
    if (client.is_local) return "local";
    return absl::StrCat("CN '", util::TruncateForMessage(client.common_name), "' at ", context.peer());
}

// ---- What and how ----

std::string DescribeOperation(const v1::CreateReservationRequest& request) {
    return Quoted("CreateReservation", request.key());
}

std::string DescribeOperation(const v1::UpdateReservationRequest& request) {
    return Quoted("UpdateReservation", request.key());
}

std::string DescribeOperation(const v1::DeleteReservationRequest& request) {
    return Quoted("DeleteReservation", request.key());
}

std::string DescribeOperation(const v1::BeginJobRequest& request) {
    return absl::StrCat("BeginJob ", request.job_id());
}

std::string DescribeOperation(const v1::EndJobRequest& request) { return absl::StrCat("EndJob ", request.job_id()); }

std::string DescribeOperation(const v1::ReportPortRequest& request) {
    return absl::StrCat("ReportPort 0x", absl::Hex(request.guid()), " ", request.port_num());
}

std::string DescribeOperation(const v1::Operation& operation) {
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            return DescribeOperation(operation.create_reservation());
        case v1::Operation::kUpdateReservation:
            return DescribeOperation(operation.update_reservation());
        case v1::Operation::kDeleteReservation:
            return DescribeOperation(operation.delete_reservation());
        case v1::Operation::kBeginJob:
            return DescribeOperation(operation.begin_job());
        case v1::Operation::kEndJob:
            return DescribeOperation(operation.end_job());
        case v1::Operation::OPERATION_NOT_SET:
            break;
    }
    return "nothing";
}

std::string DescribeOperation(const v1::TransactRequest& request) {
    return absl::StrCat("Transact of ", request.operations_size());
}

std::string DescribeOutcome(const v1::ReservationReply& reply) { return reply.status_name(); }

std::string DescribeOutcome(const v1::BeginJobReply& reply) { return v1::BeginJobReply::Result_Name(reply.result()); }

std::string DescribeOutcome(const v1::EndJobReply& reply) { return reply.was_running() ? "ended" : "was not running"; }

std::string DescribeOutcome(const v1::ReportPortReply& reply) { return reply.acted() ? "acted" : "nothing changed"; }

std::string DescribeOutcome(const v1::OperationReply& reply) {
    if (reply.has_reservation()) return DescribeOutcome(reply.reservation());
    if (reply.has_begin_job()) return DescribeOutcome(reply.begin_job());
    return DescribeOutcome(reply.end_job());
}

std::string DescribeOutcome(const v1::TransactReply& reply) {
    if (reply.accepted() || reply.replies().empty()) return "accepted";
    return absl::StrCat("refused at operation ", reply.replies_size(), ": ",
                        DescribeOutcome(*reply.replies().rbegin()));
}

// ---- Records ----

AuditLog::~AuditLog() {
    const util::MutexLock lock(&mutex_);
    WriteNumberLeftOut(changes_);
    WriteNumberLeftOut(denials_);
}

void AuditLog::RecordChange(const std::function<std::string()>& text) {
    const util::MutexLock lock(&mutex_);
    Record(changes_, text);
}

void AuditLog::RecordDenial(const std::function<std::string()>& text) {
    const util::MutexLock lock(&mutex_);
    Record(denials_, text);
}

void AuditLog::Record(Budget& budget, const std::function<std::string()>& text) {
    const absl::Time now = absl::Now();
    if (now < budget.second || now - budget.second >= absl::Seconds(1)) {
        WriteNumberLeftOut(budget);
        budget.second = now;
        budget.num_records = 0;
    }
    if (++budget.num_records <= kMaxRecordsPerSecond) WriteAudit(text());
}

void AuditLog::WriteNumberLeftOut(const Budget& budget) {
    if (budget.num_records <= kMaxRecordsPerSecond) return;
    WriteAudit(absl::StrCat(budget.num_records - kMaxRecordsPerSecond, " ", budget.what, " left out here"));
}

}    // namespace reservationd
