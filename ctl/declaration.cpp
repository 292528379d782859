#include "ctl/declaration.h"

#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>

#include <nlohmann/json.hpp>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ctl/errors.h"
#include "ctl/guid_list.h"
#include "util/limits.h"

namespace reservationctl {
namespace {

namespace v1 = reservation::v1;
using nlohmann::json;

// Deeper than any declaration. Much deeper values exhaust the stack of those who walk through them.
constexpr int kMaxDepth = 16;

json ParseJson(const std::string& text, const std::string& name) try {
    const auto check_depth = [&name](int depth, json::parse_event_t, const json&) {
        if (depth > kMaxDepth) throw UsageError(fmt::format("{}: has more than {} levels", name, kMaxDepth));
        return true;
    };
    return json::parse(text, check_depth, true, true);
} catch (const json::exception& error) {
    const std::string message = error.what();
    const size_t end_of_tag = message.find("] ");
    throw UsageError(name + ": " + (end_of_tag == message.npos ? message : message.substr(end_of_tag + 2)));
}

// Takes the host expressions out of the reservation. What a listing tells of nodes, an object, is only taken out.
std::vector<std::string> TakeNodes(json& reservation, const std::string& source) {
    if (!reservation.contains("nodes")) return {};
    const json nodes = std::move(reservation["nodes"]);
    reservation.erase("nodes");
    if (nodes.is_object()) return {};
    std::vector<std::string> expressions;
    for (const json& element : nodes.is_array() ? nodes : json::array({nodes})) {
        if (!element.is_string()) throw UsageError(source + ": \"nodes\" is not a string or an array of strings");
        expressions.push_back(element.get<std::string>());
    }
    return expressions;
}

// Takes the GUIDs out of the reservation: each element is a string that lists some, or a number.
GuidList TakeGuids(json& reservation, const std::string& source) {
    if (!reservation.contains("guids")) throw UsageError(source + ": has no member \"guids\", and no \"nodes\"");
    const json elements = std::move(reservation["guids"]);
    reservation.erase("guids");
    if (!elements.is_array()) throw UsageError(source + ": \"guids\" is not an array");
    GuidList guids;
    for (const json& element : elements) {
        ParseGuids(element.is_string() ? element.get_ref<const std::string&>() : element.dump(), source, guids);
    }
    return guids;
}

// The daemon takes a limit with this value for none.
void ForgetLimitsNotGiven(v1::Limits& limits) {
    const google::protobuf::Reflection& reflection = *limits.GetReflection();
    std::vector<const google::protobuf::FieldDescriptor*> given;
    reflection.ListFields(limits, &given);
    for (const auto* limit : given) {
        if (reflection.GetUInt32(limits, limit) == util::kLimitNotGiven) reflection.ClearField(&limits, limit);
    }
}

v1::Reservation ParseReservation(json element, const std::string& name, size_t index, const FindGuids& find_guids) {
    std::string source = fmt::format("{}: reservation {}", name, index + 1);
    if (!element.is_object()) throw UsageError(source + " is not an object");
    const auto key = element.find("key");
    if (key != element.end() && key->is_string()) source += fmt::format(" ({})", key->get_ref<const std::string&>());
    const std::vector<std::string> nodes = TakeNodes(element, source);
    const bool has_nodes_only = !nodes.empty() && !element.contains("guids");
    GuidList guids = has_nodes_only ? GuidList() : TakeGuids(element, source);
    if (!nodes.empty()) {
        const GuidList found = find_guids(nodes);
        guids.insert(guids.end(), found.begin(), found.end());
    }
    const auto pkey = element.find("pkey");
    if (pkey != element.end() && pkey->is_string()) {
        *pkey = ParseNumber(pkey->get_ref<const std::string&>(), 0, util::kMaxPkey, source);
    }

    v1::Reservation reservation;
    const auto status = google::protobuf::util::JsonStringToMessage(element.dump(), &reservation);
    if (!status.ok()) throw UsageError(source + ": " + std::string(status.message()));
    if (reservation.key().empty()) throw UsageError(source + ": has no key");
    if (reservation.pkey() > util::kMaxPkey) {
        throw UsageError(fmt::format("{}: pkey {} is above {}", source, reservation.pkey(), util::kMaxPkey));
    }
    if (reservation.has_limits()) ForgetLimitsNotGiven(*reservation.mutable_limits());
    reservation.mutable_guids()->Add(guids.begin(), guids.end());
    return reservation;
}

void CheckTogether(const Reservations& reservations, const std::string& name) {
    std::unordered_set<std::string> keys;
    std::unordered_map<uint64_t, const v1::Reservation*> holders;
    for (const v1::Reservation& reservation : reservations) {
        if (!keys.insert(reservation.key()).second) {
            throw UsageError(fmt::format("{}: reservation {} is there twice", name, reservation.key()));
        }
        for (const uint64_t guid : reservation.guids()) {
            const auto [holder, is_first] = holders.emplace(guid, &reservation);
            if (is_first) continue;
            throw UsageError(fmt::format("{}: GUID {:#x} of reservation {} is there already, in reservation {}", name,
                                         guid, reservation.key(), holder->second->key()));
        }
    }
}

}    // namespace

Reservations ParseDeclaration(const std::string& text, const std::string& name, const FindGuids& find_guids) {
    json document = ParseJson(text, name);
    const auto elements = document.is_object() ? document.find("reservations") : document.end();
    if (elements == document.end() || !elements->is_array()) {
        throw UsageError(name + ": is not an object with an array \"reservations\"");
    }
    if (document.contains("status") && document["status"] != "STATUS_SUCCESS" && document["status"] != 0) {
        throw UsageError(name + ": is the answer to a refused request: " + document["status"].dump());
    }
    Reservations reservations;
    for (size_t i = 0; i < elements->size(); ++i) {
        *reservations.Add() = ParseReservation(std::move((*elements)[i]), name, i, find_guids);
    }
    CheckTogether(reservations, name);
    return reservations;
}

}    // namespace reservationctl
