// GUIDs, and other numbers, as people write and read them.

#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace reservationctl {

using GuidList = std::vector<uint64_t>;

// The largest list that is read, so that a range with a digit too many is told from a fabric.
inline constexpr size_t kMaxGuids = 10'000'000;

// A whole number, decimal or hexadecimal with 0x, from `min` to `max`. Throws UsageError, which begins with `source`.
uint64_t ParseNumber(std::string_view text, uint64_t min, uint64_t max, const std::string& source);

// Appends the GUIDs that `text` lists, in its order: items between commas or white space, each a GUID (0x1f, 31, or
// 0200:0000:00a1:b2c0) or a range of them (0x10-0x1f). Throws UsageError, which begins with `source` and names the
// item.
void ParseGuids(std::string_view text, const std::string& source, GuidList& guids);

// The GUIDs of an option's values, in their order. A value is a list as above, or @FILE, or - for `standard_input`.
// Files hold such lists; a # starts a comment. Throws UsageError, which names the option, or the file and line, at
// fault.
GuidList ReadGuids(const std::vector<std::string>& values, const std::string& option, std::istream& standard_input);

// "0x1f"
std::string FormatHex(uint64_t number);

// "0x10-0x1f,0x30": neighbours folded into ranges. `guids` is ascending. A text that would pass `max_length` ends
// before that with how many GUIDs are left out.
std::string FoldGuids(const GuidList& guids, size_t max_length = std::string::npos);

}    // namespace reservationctl
