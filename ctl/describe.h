// Replies in words.

#pragma once

#include <string>

#include "reservation/v1/reservation.pb.h"

namespace reservationctl {

// Each text is a number of whole lines. Keys and reasons in it are printable.

// "5 GUIDs", "1 job"
std::string Count(size_t number, const std::string& thing);

// "1,2,3"
std::string JoinNumbers(const google::protobuf::RepeatedField<uint64_t>& numbers);

// "num_trees=4,limit6=1", or "none".
std::string DescribeLimits(const reservation::v1::Limits& limits);

// One line for each reservation, with the beginning of its nodes or, where the reply tells of none, of its GUIDs.
std::string DescribeInTable(const google::protobuf::RepeatedPtrField<reservation::v1::Reservation>& reservations);

// One line for each HCA.
std::string DescribeHcas(const google::protobuf::RepeatedPtrField<reservation::v1::NodeInfo>& nodes);

// One line for each node, and one that counts them.
std::string DescribeNodes(const google::protobuf::RepeatedPtrField<reservation::v1::NodeInfo>& nodes);

// One reservation in full.
std::string Describe(const reservation::v1::Reservation& reservation);

// One line for each job, likewise.
std::string DescribeInTable(const google::protobuf::RepeatedPtrField<reservation::v1::Job>& jobs);

// When a job was started, or "-": part of a line.
std::string DescribeStart(const reservation::v1::Job& job);

std::string Describe(const reservation::v1::DaemonInfo& info);
std::string Describe(const reservation::v1::Event& event);

// What the request did to others, or would do; empty when that is nothing.
std::string Describe(const reservation::v1::Consequences& consequences, bool is_dry_run);

}    // namespace reservationctl
