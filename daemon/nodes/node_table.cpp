#include "daemon/nodes/node_table.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>

#include <utility>

#include "util/file.h"
#include "util/guid_list.h"
#include "util/host_expression.h"
#include "util/text.h"

namespace reservationd {

namespace {

constexpr size_t kMaxFaults = 20;

std::string Quoted(absl::string_view text) {
    return absl::StrCat("'", util::TruncateForMessage({text.data(), text.size()}), "'");
}

// As a number does, or two with a dash between them.
bool ReadsAsGuids(std::string_view name) {
    const size_t dash = name.find('-');
    return util::ParseNumber(name.substr(0, dash)) && (dash == name.npos || util::ParseNumber(name.substr(dash + 1)));
}

}    // namespace

class NodeTable::Reader {
public:
    Reader(std::string path, NodeTable& table) : path_(std::move(path)), table_(table) {}

    absl::Status Read(const std::string& content) {
        for (const absl::string_view line : absl::StrSplit(content, '\n')) {
            ++line_;
            ReadLine(line.substr(0, line.find('#')));
        }
        if (num_faults_ == 0 && table_.nodes_.empty()) AddFault(absl::StrCat(path_, ": names no node"));
        if (num_faults_ == 0) return absl::OkStatus();
        if (num_faults_ > kMaxFaults) {
            faults_.push_back(absl::StrCat(path_, ": ", num_faults_ - kMaxFaults, " faults more"));
        }
        return absl::InvalidArgumentError(absl::StrJoin(faults_, "\n"));
    }

private:
    void ReadLine(absl::string_view line) {
        const std::vector<absl::string_view> columns =
            absl::StrSplit(line, absl::ByAnyChar(" \t\r"), absl::SkipEmpty());
        if (columns.empty()) return;
        const auto names = util::ExpandHosts({columns.front().data(), columns.front().size()});
        if (!names.ok()) {
            return AddLineFault(absl::StrCat(Quoted(columns.front()), ": ", names.status().message()));
        }
        if (columns.size() == 1) return AddLineFault(absl::StrCat(Quoted(columns.front()), " has no GUIDs"));
        for (size_t i = 1; i < columns.size(); ++i) ReadColumn(*names, columns.front(), columns[i]);
    }

    void ReadColumn(const std::vector<std::string>& names, absl::string_view expression, absl::string_view column) {
        util::GuidList guids;
        const absl::Status status = util::ParseGuids({column.data(), column.size()}, guids);
        if (!status.ok()) return AddLineFault(status.message());
        if (guids.size() != names.size()) {
            return AddLineFault(absl::StrCat("nodes in ", Quoted(expression), ": ", names.size(), ", but GUIDs in ",
                                             Quoted(column), ": ", guids.size()));
        }
        for (size_t i = 0; i < names.size(); ++i) Add(names[i], guids[i]);
    }

    void Add(const std::string& name, uint64_t guid) {
        if (ReadsAsGuids(name)) return AddLineFault(absl::StrCat("the name ", Quoted(name), " reads as a GUID"));
        const auto known = table_.owners_.find(guid);
        if (known != table_.owners_.end()) {
            return AddLineFault(absl::StrCat("GUID ", util::FormatHex(guid), " of ", name, " is ",
                                             table_.nodes_[known->second.node].name, "'s already, by line ",
                                             known->second.line));
        }
        const auto [index, is_new] = table_.indices_.emplace(name, static_cast<uint32_t>(table_.nodes_.size()));
        if (is_new) table_.nodes_.push_back({name, {}});
        table_.nodes_[index->second].guids.push_back(guid);
        table_.owners_.emplace(guid, Owner{index->second, line_});
    }

    void AddLineFault(absl::string_view fault) { AddFault(absl::StrCat(path_, ":", line_, ": ", fault)); }

    void AddFault(std::string fault) {
        if (++num_faults_ <= kMaxFaults) faults_.push_back(std::move(fault));
    }

    const std::string path_;
    NodeTable& table_;
    uint32_t line_ = 0;
    size_t num_faults_ = 0;
    std::vector<std::string> faults_;    // the first ones
};

absl::StatusOr<std::shared_ptr<const NodeTable>> NodeTable::Read(const std::string& path) {
    const absl::StatusOr<std::string> content = util::ReadWholeFile(path);
    if (!content.ok()) return content.status();
    auto table = std::make_shared<NodeTable>();
    absl::Status status = Reader(path, *table).Read(*content);
    if (!status.ok()) return status;
    return table;
}

const Node* NodeTable::FindByName(const std::string& name) const {
    const auto found = indices_.find(name);
    return found != indices_.end() ? &nodes_[found->second] : nullptr;
}

const Node* NodeTable::FindByGuid(uint64_t guid) const {
    const auto found = owners_.find(guid);
    return found != owners_.end() ? &nodes_[found->second.node] : nullptr;
}

}    // namespace reservationd
