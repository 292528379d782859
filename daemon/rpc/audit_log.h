// The audit: who changed what, and who was not allowed to.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>
#include <absl/strings/str_cat.h>
#include <absl/time/time.h>
#include <grpcpp/server_context.h>

#include <cstdint>
#include <functional>
#include <string>

#include "reservation/v1/reservation.pb.h"
#include "util/mutex.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Who calls, from where: "CN 'operator' at ipv4:10.0.0.1:4711", "local".
std::string DescribeCaller(grpc::CallbackServerContext& context);

// What a request asks for, on which key or job: "CreateReservation 'A'", "EndJob 7", "Session".
std::string DescribeOperation(const v1::CreateReservationRequest& request);
std::string DescribeOperation(const v1::UpdateReservationRequest& request);
std::string DescribeOperation(const v1::DeleteReservationRequest& request);
std::string DescribeOperation(const v1::BeginJobRequest& request);
std::string DescribeOperation(const v1::EndJobRequest& request);
std::string DescribeOperation(const v1::ReportPortRequest& request);
std::string DescribeOperation(const v1::Operation& operation);
std::string DescribeOperation(const v1::TransactRequest& request);

// How the manager answered: "STATUS_SUCCESS".
std::string DescribeOutcome(const v1::ReservationReply& reply);
std::string DescribeOutcome(const v1::BeginJobReply& reply);
std::string DescribeOutcome(const v1::EndJobReply& reply);
std::string DescribeOutcome(const v1::ReportPortReply& reply);
std::string DescribeOutcome(const v1::OperationReply& reply);
std::string DescribeOutcome(const v1::TransactReply& reply);

// Writes AUDIT records to the log whatever its level. Of the changes and of the denied calls, each, it writes the first
// kMaxRecordsPerSecond of every second; the next record afterwards says how many were left out. For any thread.
class AuditLog {
public:
    static constexpr uint64_t kMaxRecordsPerSecond = 200;

    AuditLog() = default;
    AuditLog(const AuditLog&) = delete;
    AuditLog& operator=(const AuditLog&) = delete;
    ~AuditLog();    // says how many were left out last

    // `text` is called if the record is written.
    void RecordChange(const std::function<std::string()>& text);
    void RecordDenial(const std::function<std::string()>& text);

    // A request that would have changed something, and the reply that it got if the status is OK.
    // `caller`: a function that describes who asked.
    template <typename Caller, typename Request, typename Reply>
    void RecordChange(const Caller& caller, const Request& request, const Reply& reply, const absl::Status& status) {
        RecordChange([&] {
            return absl::StrCat(caller(), ": ", DescribeOperation(request), ": ",
                                status.ok() ? DescribeOutcome(reply) : status.ToString());
        });
    }

private:
    struct Budget {
        const char* what;
        absl::Time second = absl::InfinitePast();    // its beginning
        uint64_t num_records = 0;    // of that second, those left out included
    };

    static void Record(Budget& budget, const std::function<std::string()>& text);
    static void WriteNumberLeftOut(const Budget& budget);

    util::Mutex mutex_;
    Budget changes_ ABSL_GUARDED_BY(mutex_) = {.what = "changes"};
    Budget denials_ ABSL_GUARDED_BY(mutex_) = {.what = "denied calls"};
};

}    // namespace reservationd
