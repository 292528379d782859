// Text from outside: keys, reasons, messages.

#pragma once

#include <string>
#include <string_view>

namespace reservationctl {

// The text with its control characters turned into '?', so that no key or reason can take over the terminal.
std::string Printable(std::string_view text);

// Whether the text is well-formed UTF-8, as every text in a message must be.
bool IsUtf8(std::string_view text);

}    // namespace reservationctl
