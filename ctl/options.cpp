#include "ctl/options.h"

#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <iostream>
#include <vector>

#include "ctl/errors.h"
#include "ctl/guid_list.h"
#include "util/limits.h"
#include "util/text.h"

namespace reservationctl {

namespace v1 = reservation::v1;

namespace {

using SetTexts = std::function<void(const std::vector<std::string>& texts)>;

// `text` is NAME=N.
void SetLimit(const std::string& text, v1::Limits& limits) {
    const std::string name = text.substr(0, text.find('='));
    const auto* const limit = v1::Limits::descriptor()->FindFieldByName(name);
    if (limit == nullptr || name.size() == text.size()) {
        throw UsageError(
            fmt::format("--limit: '{}' is not NAME=N with one of limit0 to limit2, num_trees, limit4 to limit6", text));
    }
    const uint64_t max = name == "num_trees" ? util::kNoTreesLimit : util::kLimitNotGiven;
    const uint64_t value = ParseNumber(text.substr(name.size() + 1), 0, max, "--limit " + name);
    limits.GetReflection()->SetUInt32(&limits, limit, static_cast<uint32_t>(value));
}

void AddExpression(const std::string& expression, const std::string& option,
                   google::protobuf::RepeatedPtrField<std::string>* nodes) {
    if (!util::IsUtf8(expression)) throw UsageError(fmt::format("{}: '{}' is not UTF-8", option, expression));
    nodes->Add(std::string(expression));
}

// Can be repeated.
CLI::Option* AddTexts(CLI::App* command, const std::string& name, const std::string& help, const SetTexts& set) {
    return command->add_option_function<std::vector<std::string>>(name, set, help)->allow_extra_args(false);
}

}    // namespace

CLI::Option* AddText(CLI::App* command, const std::string& name, const std::string& help, const SetText& set) {
    return command->add_option_function<std::string>(name, set, help)->type_name("");
}

CLI::Option* AddNumber(CLI::App* command, const std::string& name, uint64_t min, uint64_t max, const std::string& help,
                       const SetNumber& set) {
    const auto parse = [=](const std::string& text) { set(ParseNumber(text, min, max, name)); };
    return AddText(command, name, help, parse)->type_name(name.starts_with('-') ? "N" : "");
}

CLI::Option* AddGuids(CLI::App* command, const std::string& name, const std::string& help,
                      google::protobuf::RepeatedField<uint64_t>* guids) {
    const auto read = [=](const std::vector<std::string>& values) {
        const GuidList list = ReadGuids(values, name, std::cin);
        guids->Add(list.begin(), list.end());
    };
    return AddTexts(command, name, help + ": 0x10,0x20-0x2f, @FILE or -; can be repeated", read)->type_name("LIST");
}

CLI::Option* AddNodes(CLI::App* command, const std::string& name, const std::string& help,
                      google::protobuf::RepeatedPtrField<std::string>* nodes) {
    const auto read = [=](const std::vector<std::string>& expressions) {
        for (const std::string& expression : expressions) AddExpression(expression, name, nodes);
    };
    return AddTexts(command, name, help + ": node[001-016,020],login1; can be repeated", read)->type_name("NODES");
}

CLI::Option* AddFreeNodes(CLI::App* command, const std::string& name,
                          const std::function<v1::FreeNodes*()>& free_nodes) {
    CLI::Option* const count =
        AddNumber(command, name, 1, UINT32_MAX, "so many free nodes, the first ones there are",
                  [=](uint64_t number) { free_nodes()->set_count(static_cast<uint32_t>(number)); });
    const auto read = [=](const std::vector<std::string>& expressions) {
        for (const std::string& item : expressions) AddExpression(item, "--among", free_nodes()->mutable_among());
    };
    AddTexts(command, "--among", "free nodes among these only; can be repeated", read)
        ->type_name("NODES")
        ->needs(count);
    return count;
}

void AddNodeOrGuid(CLI::App* command, v1::ListNodesRequest* request) {
    const auto read = [request](const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            GuidList guids;
            if (util::ParseGuids(name, guids).ok()) {
                request->mutable_guids()->Add(guids.begin(), guids.end());
            } else {
                AddExpression(name, "NAME", request->mutable_nodes());
            }
        }
    };
    command->add_option_function<std::vector<std::string>>("NAME", read, "nodes, or GUIDs of HCAs")
        ->type_name("")
        ->required();
}

CLI::Option* AddKey(CLI::App* command, const std::string& help, const SetText& set) {
    return AddText(command, "KEY", help, [set](const std::string& key) {
        if (key.empty()) throw UsageError("KEY: is empty");
        if (!util::IsUtf8(key)) throw UsageError(fmt::format("KEY: '{}' is not UTF-8", key));
        set(key);
    });
}

void AddLimits(CLI::App* command, v1::CreateReservationRequest* request) {
    const std::string help =
        fmt::format("trees that its jobs may use together, per plane; {0}, the largest number, means no limit",
                    util::kNoTreesLimit);
    AddNumber(command, "--num-trees", 0, util::kNoTreesLimit, help,
              [request](uint32_t trees) { request->mutable_limits()->set_num_trees(trees); });
    const auto set_limits = [request](const std::vector<std::string>& limits) {
        for (const std::string& limit : limits) SetLimit(limit, *request->mutable_limits());
    };
    AddTexts(command, "--limit", "another limit by its name, such as limit0; can be repeated", set_limits)
        ->type_name("NAME=N");
}

CLI::Option* AddPkeys(CLI::App* command, v1::ReportPortRequest* request) {
    const auto set_pkeys = [request](const std::string& text) {
        if (text == "none") return;
        for (const absl::string_view pkey : absl::StrSplit(text, ',')) {
            const uint64_t number = ParseNumber({pkey.data(), pkey.size()}, 0, util::kMaxPkey, "--pkeys");
            request->add_pkeys(static_cast<uint32_t>(number));
        }
    };
    return AddText(command, "--pkeys", "such as 0x8001,0x7fff, or none", set_pkeys)->type_name("PKEYS");
}

}    // namespace reservationctl
