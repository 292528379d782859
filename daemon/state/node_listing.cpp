#include "daemon/state/node_listing.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_cat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/state/page.h"

namespace reservationd {

namespace {

// What a request wants listed, if that is not the whole table.
struct Selection {
    std::vector<const Node*> nodes;    // in the order of the table
    std::vector<uint64_t> other_guids;    // ascending
};

template <typename Value>
void SortAndUnite(std::vector<Value>& values) {
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
}

Selection Select(const NodeTable& table, const v1::ListNodesRequest& request) {
    Selection selection;
    for (const uint64_t guid : request.guids()) {
        const Node* const node = table.FindByGuid(guid);
        if (node != nullptr) {
            selection.nodes.push_back(node);
        } else {
            selection.other_guids.push_back(guid);
        }
    }
    SortAndUnite(selection.nodes);
    SortAndUnite(selection.other_guids);
    return selection;
}

class Describer {
public:
    explicit Describer(const ReservationState& state) : state_(state) {}

    void Describe(const std::string& name, const std::vector<uint64_t>& guids, v1::NodeInfo* info) {
        info->set_name(name);
        size_t num_reserved = 0;
        for (const uint64_t guid : guids) {
            v1::Hca* const hca = info->add_hcas();
            hca->set_guid(guid);
            const ReservationInfo* const owner = state_.FindOwner(guid);
            if (owner == nullptr) continue;
            ++num_reserved;
            hca->set_reservation_key(owner->info.reservation_key);
            hca->set_pkey(owner->info.pkey);
            hca->set_created_unix_millis(state_.CreatedUnixMillis(owner->info.reservation_key));
            const std::vector<uint64_t>& job_ids = JobsOf(*owner)[guid];
            hca->mutable_job_ids()->Add(job_ids.begin(), job_ids.end());
        }
        info->set_state(num_reserved == 0              ? v1::NodeInfo::STATE_FREE
                        : num_reserved == guids.size() ? v1::NodeInfo::STATE_RESERVED
                                                       : v1::NodeInfo::STATE_PARTIAL);
    }

private:
    using JobsByGuid = std::unordered_map<uint64_t, std::vector<uint64_t>>;

    // Looked up once for each reservation.
    JobsByGuid& JobsOf(const ReservationInfo& reservation) {
        const auto [found, is_new] = jobs_.try_emplace(&reservation);
        if (is_new) {
            for (const auto& [job_id, job] : reservation.jobs) {
                for (const uint64_t guid : job.guids) found->second[guid].push_back(job_id);
            }
        }
        return found->second;
    }

    const ReservationState& state_;
    std::unordered_map<const ReservationInfo*, JobsByGuid> jobs_;
};

}    // namespace

void ListNodes(const ReservationState& state, const NodeTable& table, const v1::ListNodesRequest& request,
               v1::ListNodesReply* reply) {
    const Selection selection = Select(table, request);
    const bool is_whole_table = request.guids().empty();
    const size_t num_nodes = is_whole_table ? table.nodes().size() : selection.nodes.size();
    const size_t num_entries = num_nodes + selection.other_guids.size();
    size_t next = 0;
    if (!absl::SimpleAtoi(request.page_token(), &next)) next = 0;
    Describer describer(state);
    const auto describe = [&](size_t entry, v1::NodeInfo* info) {
        if (entry >= num_nodes) return describer.Describe("", {selection.other_guids[entry - num_nodes]}, info);
        const Node& node = is_whole_table ? table.nodes()[entry] : *selection.nodes[entry];
        describer.Describe(node.name, node.guids, info);
    };
    PageLimit limit(request.page_size());
    for (; next < num_entries && limit.HasRoom(); ++next) {
        v1::NodeInfo* const info = reply->add_nodes();
        describe(next, info);
        if (limit.Take(*info)) continue;
        reply->mutable_nodes()->RemoveLast();
        break;
    }
    if (next < num_entries) reply->set_next_page_token(absl::StrCat(next));
}

}    // namespace reservationd
