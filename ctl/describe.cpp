#include "ctl/describe.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_join.h>
#include <absl/time/time.h>
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "ctl/guid_list.h"
#include "ctl/table.h"
#include "util/limits.h"
#include "util/text.h"

namespace reservationctl {

namespace v1 = reservation::v1;

namespace {

constexpr size_t kMaxGuidsWidth = 60;    // characters; of nodes, too

template <typename Guids>
GuidList ToList(const Guids& guids) {
    return GuidList(guids.begin(), guids.end());
}

std::string DescribeTrees(const v1::Reservation& reservation) {
    const bool is_unlimited = reservation.max_trees() == util::kNoTreesLimit;
    return fmt::format("{} of {}", reservation.used_trees(),
                       is_unlimited ? "unlimited" : std::to_string(reservation.max_trees()));
}

std::string DescribeState(const v1::Reservation& reservation) {
    switch (reservation.state()) {
        case 1:
            return "active";
        case 3:
            return "deleted";
        default:
            return std::to_string(reservation.state());
    }
}

std::string DescribeTime(int64_t unix_millis) {
    return absl::FormatTime("%Y-%m-%dT%H:%M:%SZ", absl::FromUnixMillis(unix_millis), absl::UTCTimeZone());
}

// "node[001-016], in part node17, 2 GUIDs of no node"
std::string DescribePlaces(const v1::Nodes& nodes) {
    std::vector<std::string> items;
    if (!nodes.whole().empty()) items.push_back(util::Printable(nodes.whole()));
    if (!nodes.partial().empty()) items.push_back("in part " + util::Printable(nodes.partial()));
    if (nodes.num_other_guids() > 0) items.push_back(Count(nodes.num_other_guids(), "GUID") + " of no node");
    return absl::StrJoin(items, ", ");
}

// Where the HCAs of reservations, or jobs, are: their nodes, if any of them tells some, or else their GUIDs.
template <typename Items>
class PlacesColumn {
public:
    explicit PlacesColumn(const Items& items)
        : has_nodes_(std::any_of(items.begin(), items.end(), [](const auto& item) {
              return !item.nodes().whole().empty() || !item.nodes().partial().empty();
          })) {}

    std::string title() const { return has_nodes_ ? "NODES" : "GUIDS"; }

    template <typename Item>
    std::string Cell(const Item& item) const {
        if (!has_nodes_) return FoldGuids(ToList(item.guids()), kMaxGuidsWidth);
        std::string text = DescribePlaces(item.nodes());
        if (text.size() > kMaxGuidsWidth) text = text.substr(0, kMaxGuidsWidth - 3) + "...";
        return text;
    }

private:
    const bool has_nodes_;
};

std::string DescribeState(const v1::NodeInfo& node) {
    switch (node.state()) {
        case v1::NodeInfo::STATE_FREE:
            return "free";
        case v1::NodeInfo::STATE_RESERVED:
            return "reserved";
        default:
            return "in part";
    }
}

std::string YesOrNo(bool value) { return value ? "yes" : "no"; }

// Two columns: names and values.
std::string DescribeFacts(const std::vector<std::vector<std::string>>& facts) {
    Table table({{}, {}});
    for (const auto& fact : facts) table.AddRow(fact);
    return table.ToString();
}

std::string DescribeUnwrittenFiles(const v1::DaemonInfo& info) {
    if (info.unwritten_files() == 0) return "none";
    return fmt::format("{}, the oldest for {:.1f} s", info.unwritten_files(),
                       static_cast<double>(info.unwritten_files_age_millis()) / 1000);
}

std::string DescribeKind(const v1::Event& event) {
    const std::string key = util::Printable(event.reservation_key());
    const std::string reason = event.reason().empty() ? "" : ": " + util::Printable(event.reason());
    switch (event.kind()) {
        case v1::Event::KIND_RESERVATION_CREATED:
            return fmt::format("reservation {} created", key);
        case v1::Event::KIND_RESERVATION_UPDATED:
            return fmt::format("reservation {} updated", key);
        case v1::Event::KIND_RESERVATION_REMOVED:
            return fmt::format("reservation {} removed", key);
        case v1::Event::KIND_JOB_ERROR:
            return fmt::format("job {} of {} lost its reservation{}", event.job_id(), key, reason);
        case v1::Event::KIND_JOB_END:
            return fmt::format("job {} of {} is to be ended{}", event.job_id(), key, reason);
        default:
            return v1::Event::Kind_Name(event.kind());
    }
}

}    // namespace

std::string Count(size_t number, const std::string& thing) {
    return fmt::format("{} {}{}", number, thing, number == 1 ? "" : "s");
}

std::string JoinNumbers(const google::protobuf::RepeatedField<uint64_t>& numbers) {
    return absl::StrJoin(numbers, ",");
}

std::string DescribeLimits(const v1::Limits& limits) {
    std::vector<const google::protobuf::FieldDescriptor*> given;
    limits.GetReflection()->ListFields(limits, &given);
    if (given.empty()) return "none";
    return absl::StrJoin(given, ",", [&](std::string* text, const google::protobuf::FieldDescriptor* limit) {
        absl::StrAppend(text, limit->name(), "=", limits.GetReflection()->GetUInt32(limits, limit));
    });
}

std::string DescribeInTable(const google::protobuf::RepeatedPtrField<v1::Reservation>& reservations) {
    constexpr auto kRight = Table::Align::kRight;
    const PlacesColumn places(reservations);
    Table table({{"KEY"}, {"PKEY", kRight}, {"HCAS", kRight}, {"TREES", kRight}, {"JOBS", kRight}, {places.title()}});
    for (const v1::Reservation& reservation : reservations) {
        table.AddRow({util::Printable(reservation.key()), FormatHex(reservation.pkey()),
                      std::to_string(reservation.guids_size()), DescribeTrees(reservation),
                      std::to_string(reservation.job_ids_size()), places.Cell(reservation)});
    }
    return table.ToString();
}

std::string Describe(const v1::Reservation& reservation) {
    std::vector<std::vector<std::string>> facts = {
        {"key", util::Printable(reservation.key())},
        {"id", std::to_string(reservation.id())},
        {"state", DescribeState(reservation)},
        {"created",
         reservation.created_unix_millis() == 0 ? "not known" : DescribeTime(reservation.created_unix_millis())},
        {"pkey", FormatHex(reservation.pkey())},
        {"made from pkeys", YesOrNo(reservation.auto_created())},
        {"limits", DescribeLimits(reservation.limits())},
        {"trees", DescribeTrees(reservation)},
        {"jobs", reservation.job_ids().empty() ? "none" : JoinNumbers(reservation.job_ids())},
        {"HCAs", std::to_string(reservation.guids_size())},
        {"GUIDs", FoldGuids(ToList(reservation.guids()))}};
    if (reservation.has_nodes()) facts.push_back({"nodes", DescribePlaces(reservation.nodes())});
    return DescribeFacts(facts);
}

std::string DescribeInTable(const google::protobuf::RepeatedPtrField<v1::Job>& jobs) {
    constexpr auto kRight = Table::Align::kRight;
    const PlacesColumn places(jobs);
    Table table({{"JOB", kRight},
                 {"RESERVATION"},
                 {"STARTED"},
                 {"PLANES", kRight},
                 {"TREES", kRight},
                 {"COUNTED"},
                 {"HCAS", kRight},
                 {places.title()}});
    for (const v1::Job& job : jobs) {
        table.AddRow({std::to_string(job.job_id()), util::Printable(job.reservation_key()), DescribeStart(job),
                      std::to_string(job.planes()), std::to_string(job.trees()), YesOrNo(job.accounted()),
                      std::to_string(job.guids_size()), places.Cell(job)});
    }
    return table.ToString();
}

std::string DescribeHcas(const google::protobuf::RepeatedPtrField<v1::NodeInfo>& nodes) {
    Table table({{"NODE"}, {"GUID"}, {"RESERVATION"}, {"PKEY", Table::Align::kRight}, {"SINCE"}, {"JOBS"}});
    for (const v1::NodeInfo& node : nodes) {
        for (const v1::Hca& hca : node.hcas()) {
            const bool is_free = hca.reservation_key().empty();
            table.AddRow({node.name().empty() ? "-" : util::Printable(node.name()), FormatHex(hca.guid()),
                          is_free ? "-" : util::Printable(hca.reservation_key()), is_free ? "-" : FormatHex(hca.pkey()),
                          hca.created_unix_millis() == 0 ? "-" : DescribeTime(hca.created_unix_millis()),
                          hca.job_ids().empty() ? "-" : JoinNumbers(hca.job_ids())});
        }
    }
    return table.ToString();
}

std::string DescribeNodes(const google::protobuf::RepeatedPtrField<v1::NodeInfo>& nodes) {
    Table table(
        {{"NODE"}, {"STATE"}, {"HCAS", Table::Align::kRight}, {"JOBS", Table::Align::kRight}, {"RESERVATIONS"}});
    std::map<std::string, size_t> counts;    // by state
    for (const v1::NodeInfo& node : nodes) {
        std::set<std::string> keys;
        std::set<uint64_t> job_ids;
        for (const v1::Hca& hca : node.hcas()) {
            if (!hca.reservation_key().empty()) keys.insert(util::Printable(hca.reservation_key()));
            job_ids.insert(hca.job_ids().begin(), hca.job_ids().end());
        }
        const std::string state = DescribeState(node);
        ++counts[state];
        table.AddRow({util::Printable(node.name()), state, std::to_string(node.hcas_size()),
                      std::to_string(job_ids.size()), absl::StrJoin(keys, ",")});
    }
    return table.ToString() + fmt::format("{}: {} free, {} reserved, {} in part\n",
                                          Count(static_cast<size_t>(nodes.size()), "node"), counts["free"],
                                          counts["reserved"], counts["in part"]);
}

std::string DescribeStart(const v1::Job& job) {
    return job.start_unix_millis() == 0 ? "-" : DescribeTime(job.start_unix_millis());
}

std::string Describe(const v1::DaemonInfo& info) {
    const uint32_t trees = info.reservation_default_num_trees();
    std::vector<std::vector<std::string>> facts = {
        {"version", util::Printable(info.version())},
        {"started", DescribeTime(info.started_unix_millis())},
        {"store", util::Printable(info.persistent_dir())},
        {"starts on this store", std::to_string(info.store_generation())},
        {"store can be written", YesOrNo(info.store_writable())},
        {"durability", util::Printable(info.durability())},
        {"files to be written", DescribeUnwrittenFiles(info)},
        {"reservations", std::to_string(info.reservations())},
        {"reserved HCAs", std::to_string(info.reserved_hcas())},
        {"jobs", std::to_string(info.jobs())},
        {"refused creates and updates", std::to_string(info.failed_reservation_requests())},
        {"events kept", fmt::format("{} to {}", info.oldest_sequence(), info.last_sequence())},
        {"epoch of the events", util::Printable(info.epoch())},
        {"reservation mode", YesOrNo(info.reservation_mode())},
        {"reservations from pkeys", YesOrNo(info.reservation_auto_by_pkeys())},
        {"GUID override allowed", YesOrNo(info.reservation_allow_guid_override())},
        {"ending jobs allowed", YesOrNo(info.reservation_allow_ending_jobs())},
        {"stored reservations loaded", YesOrNo(info.load_persistent_reservations())},
        {"default trees limit", trees == util::kLimitNotGiven ? "none" : std::to_string(trees)},
        {"most jobs per HCA", info.max_jobs_per_hca() == 0 ? "unlimited" : std::to_string(info.max_jobs_per_hca())}};
    if (info.nodes() > 0) facts.push_back({"nodes", fmt::format("{} with {} HCAs", info.nodes(), info.node_hcas())});
    for (const std::string& warning : info.warnings()) facts.push_back({"warning", util::Printable(warning)});
    return DescribeFacts(facts);
}

std::string Describe(const v1::Event& event) {
    if (event.kind() == v1::Event::KIND_NONE) return fmt::format("next event: {}\n", event.sequence());
    return fmt::format("{}  {}  {}\n", event.sequence(), DescribeTime(event.time_unix_millis()), DescribeKind(event));
}

std::string Describe(const v1::Consequences& consequences, bool is_dry_run) {
    std::string text;
    for (const std::string& key : consequences.deleted_reservation_keys()) {
        text += fmt::format("{} reservation {}, whose GUIDs are taken\n", is_dry_run ? "would delete" : "deleted",
                            util::Printable(key));
    }
    if (!consequences.ended_job_ids().empty()) {
        text += fmt::format("{} {}: {}\n", is_dry_run ? "would end" : "ended",
                            Count(static_cast<size_t>(consequences.ended_job_ids_size()), "job"),
                            JoinNumbers(consequences.ended_job_ids()));
    }
    return text;
}

}    // namespace reservationctl
