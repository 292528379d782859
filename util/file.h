// Whole files. Errors name the path and tell what the system says.

#pragma once

#include <absl/status/status.h>
#include <absl/status/statusor.h>

#include <string>
#include <string_view>

namespace util {

// All that the file holds, as bytes; an empty file is an empty string. Reads pipes and devices too, up to their end.
absl::StatusOr<std::string> ReadWholeFile(const std::string& path);

// Makes the file (mode 0644 less the umask), or overwrites it, with this content. It may hold a part after an error.
absl::Status WriteWholeFile(const std::string& path, std::string_view content);

// Gives the file this content, all of it or none: what was there stays until the new content is on disk. Uses the file
// PATH.tmp on the way.
absl::Status ReplaceWholeFile(const std::string& path, std::string_view content);

}    // namespace util
