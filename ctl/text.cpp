#include "ctl/text.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace reservationctl {
namespace {

// A character begins with a byte of one of these forms: `bits` are its value under `mask`. The character has `length`
// bytes, and stands for a code point that needs so many, `min` or more.
struct Form {
    uint8_t mask;
    uint8_t bits;
    size_t length;
    uint32_t min;
};

constexpr Form kForms[] = {{0x80, 0x00, 1, 0}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

uint32_t ByteAt(std::string_view text, size_t position) { return static_cast<uint8_t>(text[position]); }

// The length of the character that the text begins with; 0: it is malformed.
size_t CharacterLength(std::string_view text) {
    const auto* const form = std::find_if(std::begin(kForms), std::end(kForms), [&](const Form& candidate) {
        return (ByteAt(text, 0) & candidate.mask) == candidate.bits;
    });
    if (form == std::end(kForms) || form->length > text.size()) return 0;
    uint32_t code_point = ByteAt(text, 0) & ~uint32_t{form->mask};
    for (size_t i = 1; i < form->length; ++i) {
        if ((ByteAt(text, i) & 0xc0) != 0x80) return 0;
        code_point = code_point << 6 | (ByteAt(text, i) & 0x3f);
    }
    const bool is_surrogate = code_point >= 0xd800 && code_point <= 0xdfff;
    return code_point < form->min || code_point > 0x10ffff || is_surrogate ? 0 : form->length;
}

}    // namespace

std::string Printable(std::string_view text) {
    const auto is_control = [](char byte) { return (byte >= '\0' && byte < ' ') || byte == '\x7f'; };
    std::string printable;
    std::replace_copy_if(text.begin(), text.end(), std::back_inserter(printable), is_control, '?');
    return printable;
}

bool IsUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = CharacterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

}    // namespace reservationctl
