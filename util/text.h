// Text from outside: keys, reasons, file names, messages.

#pragma once

#include <string>
#include <string_view>

namespace util {

// Whether the text is well-formed UTF-8, as every string of a protobuf message must be.
bool IsUtf8(std::string_view text);

// Whether a terminal obeys the character instead of showing it, or shows other text in another order because of it:
// control characters (U+0000 to U+001F, U+007F to U+009F), line and paragraph separators (U+2028, U+2029), and
// directional embeddings, overrides and isolates (U+202A to U+202E, U+2066 to U+2069).
bool IsControlCharacter(char32_t character);

// The text as well-formed UTF-8 that is safe to print: control characters are escaped as \x1b or \u202e, and bytes that
// are not UTF-8 as \xff. All else, a backslash too, stays as it is.
std::string Printable(std::string_view text);

// Printable text for use inside a message. A text of more than 40 bytes is cut after the last whole character within
// them, and ends with "...".
std::string TruncateForMessage(std::string_view text);

}    // namespace util
