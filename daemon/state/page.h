// The pages of a listing: each a reply that any client takes, and that takes little of the engine's time.

#pragma once

#include <google/protobuf/repeated_ptr_field.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>

namespace reservationd {

inline constexpr uint32_t kMaxPageEntries = 2'000;
inline constexpr size_t kMaxPageBytes = size_t{1} << 20;    // unless the first entry alone is larger

// Describes the entries of a map of pointers that come after the key `last_listed`, until a page is full. Returns the
// key of the last one described when there are more. `page_size`: most entries; 0: as many as a page holds.
template <typename Map, typename Describe, typename Message>
std::optional<typename Map::key_type> FillPage(const Map& entries, const typename Map::key_type& last_listed,
                                               uint32_t page_size, const Describe& describe,
                                               google::protobuf::RepeatedPtrField<Message>* page) {
    const int max_entries = static_cast<int>(page_size == 0 ? kMaxPageEntries : std::min(page_size, kMaxPageEntries));
    size_t num_bytes = 0;
    auto entry = entries.upper_bound(last_listed);
    for (; entry != entries.end() && page->size() < max_entries; ++entry) {
        Message* const message = page->Add();
        describe(*entry->second, message);
        num_bytes += message->ByteSizeLong();
        if (num_bytes <= kMaxPageBytes || page->size() == 1) continue;
        page->RemoveLast();
        break;
    }
    if (entry == entries.end()) return std::nullopt;
    return std::prev(entry)->first;
}

}    // namespace reservationd
