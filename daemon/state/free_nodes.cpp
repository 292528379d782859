#include "daemon/state/free_nodes.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "util/host_expression.h"

namespace reservationd {

namespace {

// Goes through the operations of a request.
class Picker {
public:
    Picker(const ReservationState& state, const NodeTable& table) : state_(state), table_(table) {}

    void Pick(v1::CreateReservationRequest* request) {
        named_guids_.insert(request->guids().begin(), request->guids().end());
        const bool is_done = !request->has_free_nodes() ||
                             Pick(request->free_nodes(), request->mutable_guids(), request->mutable_nodes());
        if (is_done) request->clear_free_nodes();
    }

    void Pick(v1::UpdateReservationRequest* request) {
        named_guids_.insert(request->add_guids().begin(), request->add_guids().end());
        const bool is_done =
            !request->has_add_free_nodes() ||
            Pick(request->add_free_nodes(), request->mutable_add_guids(), request->mutable_add_nodes());
        if (is_done) request->clear_add_free_nodes();
    }

    void Pick(v1::Operation* operation) {
        if (operation->has_create_reservation()) Pick(operation->mutable_create_reservation());
        if (operation->has_update_reservation()) Pick(operation->mutable_update_reservation());
    }

private:
    bool Pick(const v1::FreeNodes& wanted, google::protobuf::RepeatedField<uint64_t>* guids,
              google::protobuf::RepeatedPtrField<std::string>* expressions) {
        const bool is_among_all = wanted.among_guids().empty();
        const size_t num_candidates =
            is_among_all ? table_.nodes().size() : static_cast<size_t>(wanted.among_guids().size());
        std::vector<const Node*> picked;
        for (size_t i = 0; i < num_candidates && picked.size() < wanted.count(); ++i) {
            const Node& node =
                is_among_all ? table_.nodes()[i] : *table_.FindByGuid(wanted.among_guids(static_cast<int>(i)));
            if (IsFree(node)) picked.push_back(&node);
        }
        if (picked.size() < wanted.count()) return false;
        std::vector<std::string> names;
        for (const Node* node : picked) {
            names.push_back(node->name);
            guids->Add(node->guids.begin(), node->guids.end());
            named_guids_.insert(node->guids.begin(), node->guids.end());
        }
        expressions->Add(util::FoldHosts(names));
        return true;
    }

    bool IsFree(const Node& node) const {
        return std::none_of(node.guids.begin(), node.guids.end(), [this](uint64_t guid) {
            return state_.FindOwner(guid) != nullptr || named_guids_.contains(guid);
        });
    }

    const ReservationState& state_;
    const NodeTable& table_;
    std::unordered_set<uint64_t> named_guids_;    // to be added by what has been gone through
};

}    // namespace

bool WantsFreeNodes(const v1::CreateReservationRequest& request) { return request.has_free_nodes(); }

bool WantsFreeNodes(const v1::UpdateReservationRequest& request) { return request.has_add_free_nodes(); }

bool WantsFreeNodes(const v1::Operation& operation) {
    return WantsFreeNodes(operation.create_reservation()) || WantsFreeNodes(operation.update_reservation());
}

bool WantsFreeNodes(const v1::TransactRequest& request) {
    return std::any_of(request.operations().begin(), request.operations().end(),
                       [](const v1::Operation& operation) { return WantsFreeNodes(operation); });
}

void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::CreateReservationRequest* request) {
    if (WantsFreeNodes(*request)) Picker(state, table).Pick(request);
}

void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::UpdateReservationRequest* request) {
    if (WantsFreeNodes(*request)) Picker(state, table).Pick(request);
}

void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::Operation* operation) {
    if (WantsFreeNodes(*operation)) Picker(state, table).Pick(operation);
}

void PickFreeNodes(const ReservationState& state, const NodeTable& table, v1::TransactRequest* request) {
    if (!WantsFreeNodes(*request)) return;
    Picker picker(state, table);
    for (v1::Operation& operation : *request->mutable_operations()) picker.Pick(&operation);
}

}    // namespace reservationd
