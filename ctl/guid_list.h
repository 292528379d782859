// Numbers and GUIDs on the command line and in files.

#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "util/guid_list.h"

namespace reservationctl {

using util::FoldGuids;
using util::FormatHex;
using util::GuidList;

// A whole number, decimal or hexadecimal with 0x, from `min` to `max`. Throws UsageError, which begins with `source`.
uint64_t ParseNumber(std::string_view text, uint64_t min, uint64_t max, const std::string& source);

// As util::ParseGuids. Throws UsageError, which begins with `source`, instead of its status.
void ParseGuids(std::string_view text, const std::string& source, GuidList& guids);

// The GUIDs of an option's values, in their order. A value is a list as above, or @FILE, or - for `standard_input`.
// Files hold such lists; a # starts a comment. Throws UsageError, which names the option, or the file and line, at
// fault.
GuidList ReadGuids(const std::vector<std::string>& values, const std::string& option, std::istream& standard_input);

}    // namespace reservationctl
