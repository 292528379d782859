// A cursor through the index of reserved HCAs.

#pragma once

#include <cstdint>
#include <map>
#include <utility>

#include "reservation/reservation_manager.h"

namespace reservation_internal {

// Finds GUIDs in the index faster than a search for each: they come ascending nearly always, and neighbours in a
// request are neighbours in the index, so that a GUID is looked for a few steps on before it is searched for from the
// root. Any order is correct. While a cursor is used, the index is changed through it alone.
class HcaCursor {
public:
    using Index = std::map<uint64_t, ReservationHCAInfo>;

    explicit HcaCursor(Index& index) : index_(index), place_(index.begin()) {}

    // The GUID's entry, or null.
    ReservationHCAInfo* Find(uint64_t guid) { return Reach(guid) ? &place_->second : nullptr; }

    // The reservation that owns the GUID, or null.
    ReservationInfo* FindOwner(uint64_t guid) { return Reach(guid) ? place_->second.reservation : nullptr; }

    // Enters the GUID for this owner, unless it has an entry. The cursor stays behind the new entry, since the next
    // GUID belongs there, and stepping over the last entry of the index would climb the whole tree.
    void InsertIfAbsent(uint64_t guid, ReservationInfo* owner) {
        if (!Reach(guid)) index_.emplace_hint(place_, guid, ReservationHCAInfo{owner});
    }

    // Moves entries over, and drops those whose GUIDs have one. Allocates nothing; `entries` is empty afterwards.
    void TakeAll(Index& entries) {
        while (!entries.empty()) {
            const bool is_new = !Reach(entries.begin()->first);
            auto entry = entries.extract(entries.begin());
            if (is_new) index_.insert(place_, std::move(entry));
        }
    }

    // Erases the GUID's entry, if there is one.
    void Erase(uint64_t guid) {
        if (Reach(guid)) place_ = index_.erase(place_);
    }

private:
    // Two steps go past one HCA of another reservation in between.
    static constexpr int kMaxSteps = 2;

    // Goes to the first entry that is not below the GUID, and tells whether it is the GUID's.
    bool Reach(uint64_t guid) {
        for (int steps = guid >= guid_ ? kMaxSteps : 0; steps > 0 && IsBelow(guid); --steps) ++place_;
        if (guid < guid_ || IsBelow(guid)) place_ = index_.lower_bound(guid);
        guid_ = guid;
        return place_ != index_.end() && place_->first == guid;
    }

    bool IsBelow(uint64_t guid) const { return place_ != index_.end() && place_->first < guid; }

    Index& index_;
    Index::iterator place_;    // the first entry that is not below guid_
    uint64_t guid_ = 0;
};

}    // namespace reservation_internal
