// The pages of a listing: each a reply that any client takes, and that takes little of the engine's time.

#pragma once

#include <google/protobuf/message.h>
#include <google/protobuf/repeated_ptr_field.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>

namespace reservationd {

inline constexpr uint32_t kMaxPageEntries = 2'000;
inline constexpr size_t kMaxPageBytes = size_t{1} << 20;    // unless the first entry alone is larger

// What has room in one page.
class PageLimit {
public:
    // `page_size`: most entries; 0: as many as a page holds.
    explicit PageLimit(uint32_t page_size)
        : entries_left_(page_size == 0 ? kMaxPageEntries : std::min(page_size, kMaxPageEntries)) {}

    // For one entry more, if it is not too large.
    bool HasRoom() const { return entries_left_ > 0; }

    // Counts an entry. False: it is too large to be in this page.
    bool Take(const google::protobuf::Message& entry) {
        const bool is_first = num_bytes_ == 0;
        num_bytes_ += entry.ByteSizeLong();
        --entries_left_;
        return num_bytes_ <= kMaxPageBytes || is_first;
    }

private:
    uint32_t entries_left_;
    size_t num_bytes_ = 0;
};

// Describes the entries of a map of pointers that come after the key `last_listed`, until a page is full. Returns the
// key of the last one described when there are more. `page_size`: most entries; 0: as many as a page holds.
template <typename Map, typename Describe, typename Message>
std::optional<typename Map::key_type> FillPage(const Map& entries, const typename Map::key_type& last_listed,
                                               uint32_t page_size, const Describe& describe,
                                               google::protobuf::RepeatedPtrField<Message>* page) {
    PageLimit limit(page_size);
    auto entry = entries.upper_bound(last_listed);
    for (; entry != entries.end() && limit.HasRoom(); ++entry) {
        Message* const message = page->Add();
        describe(*entry->second, message);
        if (limit.Take(*message)) continue;
        page->RemoveLast();
        break;
    }
    if (entry == entries.end()) return std::nullopt;
    return std::prev(entry)->first;
}

}    // namespace reservationd
