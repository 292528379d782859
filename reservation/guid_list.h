// Operations on ascending lists of GUIDs.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace reservation_internal {

using GuidList = std::vector<uint64_t>;
using GuidSpan = std::span<const uint64_t>;

// A new array with the same GUIDs, released by delete[]; null for an empty list. In any order.
uint64_t* CopyGuids(GuidSpan guids);

// Sorts in place. Costs one pass when the GUIDs ascend already, as they do in most requests.
void SortGuids(std::span<uint64_t> guids);

// Galloping lower_bound over [first, last): O(log d) for a result d entries from `first`. REQUIRES: ascending.
const uint64_t* GallopingLowerBound(const uint64_t* first, const uint64_t* last, uint64_t guid);

// The GUIDs of `left` that are not in `right`. REQUIRES: both ascending.
GuidList Difference(GuidSpan left, GuidSpan right);

// The GUIDs of both lists, ascending. REQUIRES: both ascending, no GUID in both.
GuidList Union(GuidSpan left, GuidSpan right);

// The smallest GUID that is in both lists, or null. REQUIRES: both ascending.
const uint64_t* SmallestCommonGuid(GuidSpan left, GuidSpan right);

}    // namespace reservation_internal
