// GUIDs, and other numbers, as people write and read them.

#pragma once

#include <absl/status/status.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace util {

using GuidList = std::vector<uint64_t>;

// The largest list that is read, so that a range with a digit too many is told from a fabric.
inline constexpr size_t kMaxGuids = 10'000'000;

// A whole number, decimal or hexadecimal with 0x.
std::optional<uint64_t> ParseNumber(std::string_view text);

// Appends the GUIDs that `text` lists, in its order: items between commas or white space, each a GUID (0x1f, 31, or
// 0200:0000:00a1:b2c0) or a range of them (0x10-0x1f). InvalidArgument, which begins with the item at fault, when one
// cannot be read or the list would pass kMaxGuids.
absl::Status ParseGuids(std::string_view text, GuidList& guids);

// "0x1f"
std::string FormatHex(uint64_t number);

// "0x10-0x1f,0x30": neighbours folded into ranges. `guids` is ascending. A text that would pass `max_length` ends
// before that with how many GUIDs are left out.
std::string FoldGuids(const GuidList& guids, size_t max_length = std::string::npos);

}    // namespace util
