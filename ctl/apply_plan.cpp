#include "ctl/apply_plan.h"

#include <fmt/format.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <unordered_set>
#include <utility>

#include "ctl/describe.h"
#include "ctl/guid_list.h"
#include "util/text.h"

namespace reservationctl {

namespace v1 = reservation::v1;

namespace {

using google::protobuf::util::MessageDifferencer;

constexpr size_t kMaxGuidsWidth = 60;    // characters

GuidList SortedGuids(const v1::Reservation& reservation) {
    GuidList guids(reservation.guids().begin(), reservation.guids().end());
    std::sort(guids.begin(), guids.end());
    return guids;
}

GuidList Difference(const GuidList& guids, const GuidList& without) {
    GuidList difference;
    std::set_difference(guids.begin(), guids.end(), without.begin(), without.end(), std::back_inserter(difference));
    return difference;
}

// What cannot change in a reservation, and does; or "".
std::string FixedDifference(const v1::Reservation& old_one, const v1::Reservation& new_one) {
    if (old_one.pkey() != new_one.pkey()) {
        return fmt::format("its pkey becomes {:#x} instead of {:#x}", new_one.pkey(), old_one.pkey());
    }
    if (!MessageDifferencer::Equals(old_one.limits(), new_one.limits())) return "its limits change";
    if (old_one.auto_created() != new_one.auto_created()) return "its mark as made from pkeys changes";
    return "";
}

class Planner {
public:
    Planner(const Reservations& existing, const Reservations& wanted) {
        for (const v1::Reservation& reservation : existing) {
            existing_.emplace(reservation.key(), &reservation);
            held_guids_.insert(reservation.guids().begin(), reservation.guids().end());
        }
        for (const v1::Reservation& reservation : wanted) {
            wanted_keys_.insert(reservation.key());
            wanted_guids_.insert(reservation.guids().begin(), reservation.guids().end());
        }
    }

    std::vector<Step> Plan(const Reservations& wanted) {
        for (const auto& [key, reservation] : existing_) {
            if (!wanted_keys_.contains(key)) Delete(key, "");
        }
        for (const v1::Reservation& reservation : wanted) {
            const auto found = existing_.find(reservation.key());
            if (found == existing_.end()) {
                Create(reservation);
            } else {
                Change(*found->second, reservation);
            }
        }
        std::vector<Step> steps = std::move(shrinking_);
        for (std::vector<Step>* later : {&deletions_, &growing_}) {
            std::move(later->begin(), later->end(), std::back_inserter(steps));
        }
        return steps;
    }

private:
    template <typename Guids>
    bool IsAnyHeld(const Guids& guids) const {
        return std::any_of(guids.begin(), guids.end(), [this](uint64_t guid) { return held_guids_.contains(guid); });
    }

    void Change(const v1::Reservation& old_one, const v1::Reservation& new_one) {
        const std::string difference = FixedDifference(old_one, new_one);
        if (!difference.empty()) {
            Delete(old_one.key(), difference);
            return Create(new_one);
        }
        const GuidList old_guids = SortedGuids(old_one);
        const GuidList new_guids = SortedGuids(new_one);
        const GuidList added = Difference(new_guids, old_guids);
        const GuidList removed = Difference(old_guids, new_guids);
        if (!IsAnyHeld(added)) return Update(shrinking_, new_one.key(), added, removed);
        Update(shrinking_, new_one.key(), {}, removed);
        Update(growing_, new_one.key(), added, {});
    }

    void Create(const v1::Reservation& reservation) {
        const bool is_empty = reservation.guids().empty();
        Step& step = growing_.emplace_back();
        if (is_empty) step.reason = "nothing is created without GUIDs";
        v1::CreateReservationRequest& request = *step.operation.mutable_create_reservation();
        request.set_key(reservation.key());
        request.set_pkey(reservation.pkey());
        *request.mutable_guids() = reservation.guids();
        if (reservation.has_limits()) *request.mutable_limits() = reservation.limits();
        request.set_auto_created(reservation.auto_created());
        if (!is_empty) return;
        request.add_guids(FreeGuid());
        Update(growing_, reservation.key(), {}, {FreeGuid()});
    }

    void Update(std::vector<Step>& steps, const std::string& key, const GuidList& added,
                const GuidList& removed) const {
        if (added.empty() && removed.empty()) return;
        v1::UpdateReservationRequest& request = *steps.emplace_back().operation.mutable_update_reservation();
        request.set_key(key);
        request.mutable_add_guids()->Add(added.begin(), added.end());
        request.mutable_remove_guids()->Add(removed.begin(), removed.end());
    }

    void Delete(const std::string& key, const std::string& reason) {
        Step& step = deletions_.emplace_back();
        step.operation.mutable_delete_reservation()->set_key(key);
        step.reason = reason;
    }

    // The smallest GUID that nobody has or wants.
    uint64_t FreeGuid() const {
        uint64_t guid = 1;
        while (held_guids_.contains(guid) || wanted_guids_.contains(guid)) ++guid;
        return guid;
    }

    std::map<std::string, const v1::Reservation*> existing_;
    std::unordered_set<std::string> wanted_keys_;
    std::unordered_set<uint64_t> held_guids_;
    std::unordered_set<uint64_t> wanted_guids_;
    std::vector<Step> shrinking_;
    std::vector<Step> deletions_;
    std::vector<Step> growing_;
};

// ---- In words ----

std::string DescribeGuids(const google::protobuf::RepeatedField<uint64_t>& guids) {
    GuidList list(guids.begin(), guids.end());
    std::sort(list.begin(), list.end());
    return fmt::format("{} ({})", Count(list.size(), "GUID"), FoldGuids(list, kMaxGuidsWidth));
}

std::string DescribeRequest(const v1::CreateReservationRequest& request) {
    return fmt::format("create {}: pkey {:#x}, limits {}, {}", util::Printable(request.key()), request.pkey(),
                       DescribeLimits(request.limits()), DescribeGuids(request.guids()));
}

std::string DescribeRequest(const v1::UpdateReservationRequest& request) {
    std::string text = "change " + util::Printable(request.key()) + ":";
    if (!request.remove_guids().empty()) text += " remove " + DescribeGuids(request.remove_guids());
    if (!request.add_guids().empty()) {
        text += (request.remove_guids().empty() ? " add " : ", add ") + DescribeGuids(request.add_guids());
    }
    return text;
}

std::string DescribeOperation(const v1::Operation& operation) {
    if (operation.has_create_reservation()) return DescribeRequest(operation.create_reservation());
    if (operation.has_update_reservation()) return DescribeRequest(operation.update_reservation());
    return "delete " + util::Printable(operation.delete_reservation().key());
}

}    // namespace

std::vector<Step> PlanChanges(const Reservations& existing, const Reservations& wanted) {
    return Planner(existing, wanted).Plan(wanted);
}

std::string Describe(const Step& step) {
    return DescribeOperation(step.operation) + (step.reason.empty() ? "" : ", because " + step.reason);
}

}    // namespace reservationctl
