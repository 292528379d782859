// Host expressions: the names of many hosts in one text, as cluster tools write them.

#pragma once

#include <absl/status/statusor.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace util {

// The most hosts that one expression may name, so that a range with a digit too many is told from a cluster.
inline constexpr size_t kMaxHosts = 250'000;

// Returns the hosts that an expression names, in its order: the last bracket of a name counts fastest. A host that the
// expression names twice is there twice.
//
//     node[001-016,020],login1     names between commas; numbers and ranges of them in brackets
//     rack[1-2]node[01-16]         several brackets: each with each
//     node[1-3,1[0-4,8]]           a bracket within a bracket: node1, node2, node3, node10, ... node14, node18
//
// A name has letters, digits, '-', '_' and '.', begins with a letter or a digit, and has at most 255 bytes. Numbers
// with leading zeros keep them; the bounds of such a range have the same number of digits.
//
// InvalidArgument with the position and the fault, such as "at character 6: the range ends before it begins".
absl::StatusOr<std::vector<std::string>> ExpandHosts(std::string_view expression);

// Returns an expression for these hosts, each once, with ranges in numerical order: "node[001-016,020]". It has a
// bracket for each number in which names differ, where all combinations are there: "rack[1-2]node[01-16]". It depends
// on the set of hosts only; empty for no hosts. REQUIRES: the names are ones that ExpandHosts returns.
std::string FoldHosts(const std::vector<std::string>& hosts);

}    // namespace util
