#include "daemon/rpc/node_names.h"

#include <absl/status/statusor.h>
#include <absl/strings/str_cat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "util/guid_list.h"
#include "util/host_expression.h"
#include "util/text.h"

namespace reservationd {

namespace {

using Expressions = google::protobuf::RepeatedPtrField<std::string>;
using Guids = google::protobuf::RepeatedField<uint64_t>;

// ---- Requests ----

absl::StatusOr<const Node*> FindNode(const NodeTable& table, const char* field, const std::string& name) {
    const Node* const node = table.FindByName(name);
    if (node != nullptr) return node;
    return absl::InvalidArgumentError(absl::StrCat(field, ": node '", util::TruncateForMessage(name),
                                                   "' is not in the daemon's table of nodes",
                                                   table.nodes().empty() ? ", as its option nodes gives none" : ""));
}

// The nodes that the expressions name, in their order. Fewer than twice as many as the table has, so that a small
// request cannot take much memory.
absl::StatusOr<std::vector<const Node*>> FindNodes(const NodeTable& table, const char* field,
                                                   const Expressions& expressions) {
    std::vector<const Node*> nodes;
    for (const std::string& expression : expressions) {
        const auto names = util::ExpandHosts(expression);
        if (!names.ok()) {
            return absl::InvalidArgumentError(
                absl::StrCat(field, " '", util::TruncateForMessage(expression), "': ", names.status().message()));
        }
        for (const std::string& name : *names) {
            const auto node = FindNode(table, field, name);
            if (!node.ok()) return node.status();
            nodes.push_back(*node);
        }
        if (nodes.size() > table.nodes().size()) {
            return absl::InvalidArgumentError(absl::StrCat(field, " name more nodes than there are"));
        }
    }
    return nodes;
}

absl::Status ReplaceByGuids(const NodeTable& table, const char* field, Expressions* expressions, Guids* guids) {
    const auto nodes = FindNodes(table, field, *expressions);
    if (!nodes.ok()) return nodes.status();
    for (const Node* node : *nodes) guids->Add(node->guids.begin(), node->guids.end());
    expressions->Clear();
    return absl::OkStatus();
}

template <typename Value>
void SortAndUnite(std::vector<Value>& values) {
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
}

// Leaves the first GUID of each node, in the order of the table, and then those that are no node's, of which it returns
// the number.
size_t LeaveOneGuidOfEach(const NodeTable& table, Guids* guids) {
    std::vector<const Node*> nodes;
    std::vector<uint64_t> others;
    for (const uint64_t guid : *guids) {
        const Node* const node = table.FindByGuid(guid);
        if (node != nullptr) {
            nodes.push_back(node);
        } else {
            others.push_back(guid);
        }
    }
    SortAndUnite(nodes);
    SortAndUnite(others);
    guids->Clear();
    for (const Node* node : nodes) guids->Add(node->guids.front());
    guids->Add(others.begin(), others.end());
    return others.size();
}

absl::Status ResolveFreeNodes(const NodeTable& table, const std::string& field, v1::FreeNodes* wanted) {
    if (wanted->count() == 0) return absl::InvalidArgumentError(field + ".count is 0, at least 1 is possible");
    if (table.nodes().empty()) return absl::InvalidArgumentError(field + ": the daemon's option nodes gives none");
    Guids* const guids = wanted->mutable_among_guids();
    absl::Status status = ReplaceByGuids(table, (field + ".among").c_str(), wanted->mutable_among(), guids);
    if (status.ok() && LeaveOneGuidOfEach(table, guids) > 0) {
        status = absl::InvalidArgumentError(
            absl::StrCat(field, ".among_guids: GUID ", util::FormatHex(*guids->rbegin()), " is no node's"));
    }
    return status;
}

// ---- Replies ----

// REQUIRES: `table` has nodes.
void Describe(const NodeTable& table, const Guids& guids, v1::Nodes* description) {
    std::vector<const Node*> nodes;    // one for each GUID
    for (const uint64_t guid : guids) {
        const Node* const node = table.FindByGuid(guid);
        if (node != nullptr) nodes.push_back(node);
    }
    std::sort(nodes.begin(), nodes.end());
    std::vector<std::string> whole;
    std::vector<std::string> partial;
    for (auto first = nodes.begin(); first != nodes.end();) {
        const auto end = std::upper_bound(first, nodes.end(), *first);
        const bool is_whole = static_cast<size_t>(end - first) >= (*first)->guids.size();
        (is_whole ? whole : partial).push_back((*first)->name);
        first = end;
    }
    description->set_whole(util::FoldHosts(whole));
    description->set_partial(util::FoldHosts(partial));
    description->set_num_other_guids(static_cast<uint32_t>(static_cast<size_t>(guids.size()) - nodes.size()));
}

void NameNode(const NodeTable& table, v1::Conflict* conflict) {
    const Node* const node = table.FindByGuid(conflict->guid());
    if (node != nullptr) conflict->set_node(node->name);
}

void NameNodes(const NodeTable& table, bool with_nodes, v1::ReservationReply* reply) {
    if (reply->has_conflict()) NameNode(table, reply->mutable_conflict());
    if (!with_nodes || table.nodes().empty()) return;
    for (v1::Reservation& reservation : *reply->mutable_reservations()) {
        Describe(table, reservation.guids(), reservation.mutable_nodes());
    }
}

void TellPickedNodes(const Expressions& picked, v1::ReservationReply* reply) {
    if (!picked.empty() && reply->status() == v1::STATUS_SUCCESS) reply->set_picked_nodes(picked.at(0));
}

}    // namespace

absl::Status ResolveNodes(const NodeTable& table, v1::CreateReservationRequest* request) {
    absl::Status status = ReplaceByGuids(table, "nodes", request->mutable_nodes(), request->mutable_guids());
    if (request->has_free_nodes()) status.Update(ResolveFreeNodes(table, "free_nodes", request->mutable_free_nodes()));
    return status;
}

absl::Status ResolveNodes(const NodeTable& table, v1::UpdateReservationRequest* request) {
    absl::Status status =
        ReplaceByGuids(table, "add_nodes", request->mutable_add_nodes(), request->mutable_add_guids());
    status.Update(
        ReplaceByGuids(table, "remove_nodes", request->mutable_remove_nodes(), request->mutable_remove_guids()));
    if (request->has_add_free_nodes()) {
        status.Update(ResolveFreeNodes(table, "add_free_nodes", request->mutable_add_free_nodes()));
    }
    return status;
}

absl::Status ResolveNodes(const NodeTable& table, v1::BeginJobRequest* request) {
    return ReplaceByGuids(table, "nodes", request->mutable_nodes(), request->mutable_guids());
}

absl::Status ResolveNodes(const NodeTable& table, v1::ListNodesRequest* request) {
    absl::Status status = ReplaceByGuids(table, "nodes", request->mutable_nodes(), request->mutable_guids());
    LeaveOneGuidOfEach(table, request->mutable_guids());
    return status;
}

absl::Status ResolveNodes(const NodeTable& table, v1::Operation* operation) {
    switch (operation->operation_case()) {
        case v1::Operation::kCreateReservation:
            return ResolveNodes(table, operation->mutable_create_reservation());
        case v1::Operation::kUpdateReservation:
            return ResolveNodes(table, operation->mutable_update_reservation());
        case v1::Operation::kBeginJob:
            return ResolveNodes(table, operation->mutable_begin_job());
        default:
            return absl::OkStatus();
    }
}

absl::Status ResolveNodes(const NodeTable& table, v1::TransactRequest* request) {
    for (int i = 0; i < request->operations_size(); ++i) {
        const absl::Status status = ResolveNodes(table, request->mutable_operations(i));
        if (!status.ok()) return {status.code(), absl::StrCat("operations[", i, "]: ", status.message())};
    }
    return absl::OkStatus();
}

void NameNodes(const NodeTable& table, const v1::CreateReservationRequest& request, v1::ReservationReply* reply) {
    NameNodes(table, request.with_nodes(), reply);
    TellPickedNodes(request.nodes(), reply);
}

void NameNodes(const NodeTable& table, const v1::UpdateReservationRequest& request, v1::ReservationReply* reply) {
    NameNodes(table, request.with_nodes(), reply);
    TellPickedNodes(request.add_nodes(), reply);
}

void NameNodes(const NodeTable& table, const v1::DeleteReservationRequest& request, v1::ReservationReply* reply) {
    NameNodes(table, request.with_nodes(), reply);
}

void NameNodes(const NodeTable& table, const v1::GetReservationsRequest& request, v1::ReservationReply* reply) {
    NameNodes(table, request.with_nodes() && request.with_details(), reply);
}

void NameNodes(const NodeTable& table, const v1::BeginJobRequest&, v1::BeginJobReply* reply) {
    if (reply->has_conflict()) NameNode(table, reply->mutable_conflict());
}

void NameNodes(const NodeTable& table, const v1::ListJobsRequest& request, v1::ListJobsReply* reply) {
    if (!request.with_nodes() || table.nodes().empty()) return;
    for (v1::Job& job : *reply->mutable_jobs()) Describe(table, job.guids(), job.mutable_nodes());
}

void NameNodes(const NodeTable& table, const v1::Operation& operation, v1::OperationReply* reply) {
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            return NameNodes(table, operation.create_reservation(), reply->mutable_reservation());
        case v1::Operation::kUpdateReservation:
            return NameNodes(table, operation.update_reservation(), reply->mutable_reservation());
        case v1::Operation::kDeleteReservation:
            return NameNodes(table, operation.delete_reservation(), reply->mutable_reservation());
        case v1::Operation::kBeginJob:
            return NameNodes(table, operation.begin_job(), reply->mutable_begin_job());
        default:
            return;
    }
}

void NameNodes(const NodeTable& table, const v1::TransactRequest& request, v1::TransactReply* reply) {
    for (int i = 0; i < reply->replies_size(); ++i) NameNodes(table, request.operations(i), reply->mutable_replies(i));
}

}    // namespace reservationd
