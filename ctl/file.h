// Whole files that the user names.

#pragma once

#include <string>

namespace reservationctl {

// The content of the file, or of standard input when `path` is -. Throws UsageError, which names it, also when it is
// empty.
std::string ReadFile(const std::string& path);

}    // namespace reservationctl
