#include "reservation/guid_list.h"

#include <algorithm>
#include <tuple>

namespace reservation_internal {

namespace {

const uint64_t* EndOf(GuidSpan guids) { return guids.data() + guids.size(); }

}    // namespace

uint64_t* CopyGuids(GuidSpan guids) {
    if (guids.empty()) return nullptr;
    auto* const copy = new uint64_t[guids.size()];
    std::copy(guids.begin(), guids.end(), copy);
    return copy;
}

void SortGuids(std::span<uint64_t> guids) {
    if (!std::is_sorted(guids.begin(), guids.end())) std::sort(guids.begin(), guids.end());
}

const uint64_t* GallopingLowerBound(const uint64_t* first, const uint64_t* last, uint64_t guid) {
    ptrdiff_t step = 1;
    for (; step < last - first && first[step] < guid; step *= 2) first += step;
    return std::lower_bound(first, first + std::min(step, last - first), guid);
}

GuidList Difference(GuidSpan left, GuidSpan right) {
    const uint64_t* next = left.data();
    const uint64_t* const end = EndOf(left);
    const uint64_t* other = right.data();
    const uint64_t* const other_end = EndOf(right);
    GuidList difference;
    difference.reserve(std::max(left.size(), right.size()));
    while (next != end) {
        std::tie(next, other) = std::mismatch(next, end, other, other_end);
        if (next == end) break;
        other = GallopingLowerBound(other, other_end, *next);
        const uint64_t* const common = other != other_end ? GallopingLowerBound(next, end, *other) : end;
        difference.insert(difference.end(), next, common);
        next = common;
    }
    return difference;
}

GuidList Union(GuidSpan left, GuidSpan right) {
    GuidList united;
    united.reserve(left.size() + right.size());
    const uint64_t* next = left.data();
    const uint64_t* const end = EndOf(left);
    for (const uint64_t guid : right) {
        const uint64_t* const place = GallopingLowerBound(next, end, guid);
        united.insert(united.end(), next, place);
        united.push_back(guid);
        next = place;
    }
    united.insert(united.end(), next, end);
    return united;
}

const uint64_t* SmallestCommonGuid(GuidSpan left, GuidSpan right) {
    const uint64_t* next = left.data();
    const uint64_t* const end = EndOf(left);
    for (const uint64_t guid : right) {
        next = GallopingLowerBound(next, end, guid);
        if (next != end && *next == guid) return next;
    }
    return nullptr;
}

}    // namespace reservation_internal
