// The names of nodes in requests and replies, by a table of nodes.

#pragma once

#include <absl/status/status.h>

#include "daemon/nodes/node_table.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Each replaces the nodes that the request names by the GUIDs of their HCAs, which come after those that it names
// itself. Where nodes are to be listed or to be picked from, one GUID of each is left, in the order of the table; then,
// of a listing, those that are no node's, ascending. INVALID_ARGUMENT, with the field and the expression or the node,
// when an expression cannot be read or a node is not in the table.
absl::Status ResolveNodes(const NodeTable& table, v1::CreateReservationRequest* request);
absl::Status ResolveNodes(const NodeTable& table, v1::UpdateReservationRequest* request);
absl::Status ResolveNodes(const NodeTable& table, v1::BeginJobRequest* request);
absl::Status ResolveNodes(const NodeTable& table, v1::ListNodesRequest* request);
absl::Status ResolveNodes(const NodeTable& table, v1::Operation* operation);
absl::Status ResolveNodes(const NodeTable& table, v1::TransactRequest* request);

// A request without nodes.
template <typename Request>
absl::Status ResolveNodes(const NodeTable&, Request*) {
    return absl::OkStatus();
}

// Each tells the nodes that the reply to this request is to tell: those of reservations and jobs, if the request wants
// them; the one that was in the way; and those that PickFreeNodes picked.
void NameNodes(const NodeTable& table, const v1::CreateReservationRequest& request, v1::ReservationReply* reply);
void NameNodes(const NodeTable& table, const v1::UpdateReservationRequest& request, v1::ReservationReply* reply);
void NameNodes(const NodeTable& table, const v1::DeleteReservationRequest& request, v1::ReservationReply* reply);
void NameNodes(const NodeTable& table, const v1::GetReservationsRequest& request, v1::ReservationReply* reply);
void NameNodes(const NodeTable& table, const v1::BeginJobRequest& request, v1::BeginJobReply* reply);
void NameNodes(const NodeTable& table, const v1::ListJobsRequest& request, v1::ListJobsReply* reply);
void NameNodes(const NodeTable& table, const v1::Operation& operation, v1::OperationReply* reply);
void NameNodes(const NodeTable& table, const v1::TransactRequest& request, v1::TransactReply* reply);

// A reply without nodes.
template <typename Request, typename Reply>
void NameNodes(const NodeTable&, const Request&, Reply*) {}

}    // namespace reservationd
