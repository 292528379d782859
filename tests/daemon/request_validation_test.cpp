#include "daemon/rpc/request_validation.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <string>

namespace reservationd {
namespace {

// What is wrong with the request that the text describes; "" when nothing is.
template <typename Request>
std::string Fault(const std::string& text) {
    Request request;
    if (!google::protobuf::TextFormat::ParseFromString(text, &request)) throw std::invalid_argument(text);
    return std::string(ValidateRequest(request).message());
}

TEST(RequestValidationTest, LargestValuesAreTakenAndTheFirstFaultIsNamed) {
    const std::string longest(243, 'k');
    EXPECT_EQ(Fault<v1::CreateReservationRequest>("key: '" + longest + "' pkey: 0xffff limits { num_trees: 24575 }"),
              "");
    EXPECT_EQ(Fault<v1::CreateReservationRequest>("limits { num_trees: 0xffffffff limit0: 0xfffffffe }"), "");
    EXPECT_EQ(Fault<v1::CreateReservationRequest>("limits { num_trees: 0 }"), "");
    EXPECT_EQ(Fault<v1::BeginJobRequest>("job_id: 1 planes: 255 trees: 255"), "");
    EXPECT_EQ(Fault<v1::ReportPortRequest>("guid: 1 port_num: 255 pkeys: [0, 0xffff]"), "");
    EXPECT_EQ(Fault<v1::ReportPortRequest>("guid: 0xffffffffffffffff"), "");
    EXPECT_EQ(Fault<v1::GetReservationsRequest>("") + Fault<v1::ListJobsRequest>(""), "");

    const std::string slash = "key 'a/b' contains a slash, so it cannot name a reservation file";
    EXPECT_EQ(Fault<v1::CreateReservationRequest>("key: 'a/b' pkey: 0x10000"), slash);
    EXPECT_EQ(Fault<v1::UpdateReservationRequest>("key: 'a/b'"), slash);
    EXPECT_EQ(Fault<v1::DeleteReservationRequest>("key: 'a/b'"), slash);
    EXPECT_EQ(Fault<v1::GetReservationsRequest>("key: 'a/b'"), slash);
    EXPECT_EQ(Fault<v1::ListJobsRequest>("reservation_key: 'a/b'"), slash);
    EXPECT_EQ(Fault<v1::DeleteReservationRequest>("key: '" + longest + "k'"),
              "key '" + longest.substr(0, 40) +
                  "...' has 244 bytes, a file name holds 243, so it cannot name a reservation file");
    EXPECT_EQ(Fault<v1::DeleteReservationRequest>("key: 'a\\342\\200\\256b'"),
              "key 'a\\u202eb' contains a control character, so it cannot name a reservation file");
    EXPECT_EQ(Fault<v1::CreateReservationRequest>("pkey: 0x10000"), "pkey is 65536, at most 65535 is possible");
    EXPECT_EQ(Fault<v1::CreateReservationRequest>("limits { num_trees: 24576 }"),
              "limits.num_trees is 24576, at most 24575 is possible");
    EXPECT_EQ(Fault<v1::BeginJobRequest>("trees: 1"), "job_id is 0, at least 1 is possible");
    EXPECT_EQ(Fault<v1::BeginJobRequest>("job_id: 1 planes: 256 trees: 1"), "planes is 256, at most 255 is possible");
    EXPECT_EQ(Fault<v1::BeginJobRequest>("job_id: 1 trees: 256"), "trees is 256, at most 255 is possible");
    EXPECT_EQ(Fault<v1::BeginJobRequest>("job_id: 1"), "trees is 0, at least 1 is possible");
    EXPECT_EQ(Fault<v1::EndJobRequest>("job_id: 1 start_unix_millis: -1"), "start_unix_millis is -1, before 1970");
    EXPECT_EQ(Fault<v1::EndJobRequest>(""), "job_id is 0, at least 1 is possible");
    EXPECT_EQ(Fault<v1::ReportPortRequest>(""), "guid is 0, at least 1 is possible");
    EXPECT_EQ(Fault<v1::ReportPortRequest>("guid: 1 port_num: 256"), "port_num is 256, at most 255 is possible");
    EXPECT_EQ(Fault<v1::ReportPortRequest>("guid: 1 pkeys: [1, 65536]"), "pkeys is 65536, at most 65535 is possible");
}

}    // namespace
}    // namespace reservationd
