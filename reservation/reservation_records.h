// Copying between the records of requests, reservations and replies.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>

#include "messages/vesk_messages.h"

namespace reservation_internal {

// The seven limits, with auto_created.
template <typename To, typename From>
void CopyLimits(To& to, const From& from) {
    std::copy(std::begin(from.limits), std::end(from.limits), std::begin(to.limits));
    to.auto_created = from.auto_created;
}

// Gives a stored record another list of GUIDs, and frees the one that it had. `guids` is null for an empty list.
void ReplaceGuids(vesk_reservation_info& info, std::unique_ptr<uint64_t[]> guids, size_t count) noexcept;

// Describes a reservation, or a request for one, in a reply: all but key and state. The GUIDs stay where they are.
template <typename Record>
void Describe(vesk_reservation_info& entry, const Record& record) {
    entry.pkey = record.pkey;
    entry.num_guids = record.num_guids;
    entry.guids = record.guids;
    CopyLimits(entry, record);
}

}    // namespace reservation_internal
