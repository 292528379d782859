#include "daemon/state/node_listing.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_cat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/state/page.h"

namespace reservationd {

namespace {

constexpr size_t kFewNodes = 16;    // for which each job is asked, as no index is worth its making

class Describer {
public:
    // `num_nodes`: about as many will be described.
    Describer(const ReservationState& state, size_t num_nodes) : state_(state), has_index_(num_nodes > kFewNodes) {}

    void Describe(const Node& node, v1::NodeInfo* info) {
        info->set_name(node.name);
        size_t num_reserved = 0;
        for (const uint64_t guid : node.guids) {
            v1::Hca* const hca = info->add_hcas();
            hca->set_guid(guid);
            const ReservationInfo* const owner = state_.FindOwner(guid);
            if (owner == nullptr) continue;
            ++num_reserved;
            hca->set_reservation_key(owner->info.reservation_key);
            hca->set_pkey(owner->info.pkey);
            hca->set_created_unix_millis(state_.CreatedUnixMillis(owner->info.reservation_key));
            AddJobIds(*owner, hca);
        }
        info->set_state(num_reserved == 0                   ? v1::NodeInfo::STATE_FREE
                        : num_reserved == node.guids.size() ? v1::NodeInfo::STATE_RESERVED
                                                            : v1::NodeInfo::STATE_PARTIAL);
    }

private:
    using JobsByGuid = std::unordered_map<uint64_t, std::vector<uint64_t>>;

    void AddJobIds(const ReservationInfo& reservation, v1::Hca* hca) {
        if (has_index_) {
            const std::vector<uint64_t>& job_ids = JobsOf(reservation)[hca->guid()];
            hca->mutable_job_ids()->Add(job_ids.begin(), job_ids.end());
            return;
        }
        for (const auto& [job_id, job] : reservation.jobs) {
            if (job.guids.contains(hca->guid())) hca->add_job_ids(job_id);
        }
    }

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
    const bool has_index_;
    std::unordered_map<const ReservationInfo*, JobsByGuid> jobs_;    // if has_index_
};

}    // namespace

void ListNodes(const ReservationState& state, const NodeTable& table, const v1::ListNodesRequest& request,
               v1::ListNodesReply* reply) {
    const bool is_whole_table = request.guids().empty();
    const size_t num_entries = is_whole_table ? table.nodes().size() : static_cast<size_t>(request.guids().size());
    size_t next = 0;
    if (!absl::SimpleAtoi(request.page_token(), &next)) next = 0;
    Describer describer(state, num_entries);
    const auto describe = [&](size_t entry, v1::NodeInfo* info) {
        if (is_whole_table) return describer.Describe(table.nodes()[entry], info);
        const uint64_t guid = request.guids(static_cast<int>(entry));
        const Node* const node = table.FindByGuid(guid);
        describer.Describe(node != nullptr ? *node : Node{"", {guid}}, info);
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
