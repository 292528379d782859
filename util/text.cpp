#include "util/text.h"

#include <fmt/format.h>
#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace util {

bool IsUtf8(std::string_view text) { return utf8::is_valid(text.begin(), text.end()); }

bool IsControlCharacter(char32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0) || character == 0x2028 || character == 0x2029 ||
           (character >= 0x202a && character <= 0x202e) || (character >= 0x2066 && character <= 0x2069);
}

std::string Printable(std::string_view text) {
    std::string printable;
    for (const char* next = text.begin(); next != text.end();) {
        const char* const first = next;
        char32_t character = 0;
        try {
            character = utf8::next(next, text.end());
        } catch (const utf8::exception&) {
            next = first + 1;
            fmt::format_to(std::back_inserter(printable), "\\x{:02x}", static_cast<unsigned char>(*first));
            continue;
        }
        if (!IsControlCharacter(character)) {
            printable.append(first, next);
        } else if (character < 0x80) {
            fmt::format_to(std::back_inserter(printable), "\\x{:02x}", uint32_t{character});
        } else {
            fmt::format_to(std::back_inserter(printable), "\\u{:04x}", uint32_t{character});
        }
    }
    return printable;
}

std::string TruncateForMessage(std::string_view text) {
    constexpr size_t kMaxBytes = 40;
    if (text.size() <= kMaxBytes) return Printable(text);
    size_t length = kMaxBytes;
    while (length > kMaxBytes - 3 && (text[length] & '\xc0') == '\x80') --length;
    return Printable(text.substr(0, length)) + "...";
}

}    // namespace util
