#include "util/limits.h"

#include <fmt/format.h>
#include <utf8.h>

#include "util/text.h"

namespace util {

absl::Status ValidateKey(std::string_view key) {
    if (key.find('/') != key.npos) return absl::InvalidArgumentError("contains a slash");
    if (!IsUtf8(key)) return absl::InvalidArgumentError("is not UTF-8");
    for (const char32_t character : utf8::utf8to32(key)) {
        if (IsControlCharacter(character)) return absl::InvalidArgumentError("contains a control character");
    }
    if (key.size() <= kMaxKeyBytes) return absl::OkStatus();
    return absl::InvalidArgumentError(fmt::format("has {} bytes, a file name holds {}", key.size(), kMaxKeyBytes));
}

}    // namespace util
