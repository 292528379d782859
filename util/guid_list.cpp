#include "util/guid_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "util/text.h"

namespace util {
namespace {

constexpr std::string_view kSeparators = ", \t\r\n\v\f";

absl::Status Fault(std::string_view item, const std::string& fault) {
    return absl::InvalidArgumentError(fmt::format("'{}' {}", TruncateForMessage(item), fault));
}

// All of the digits, in this base.
std::optional<uint64_t> ParseDigits(std::string_view digits, int base) {
    uint64_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, base);
    if (digits.empty() || error != std::errc() || stop != end) return std::nullopt;
    return number;
}

bool IsHexadecimal(std::string_view text) { return text.starts_with("0x") || text.starts_with("0X"); }

// 0200:0000:00a1:b2c0, as the tools of the HCAs print it.
std::optional<uint64_t> ParseGroups(std::string_view text) {
    const bool is_grouped = text.size() == 19 && text[4] == ':' && text[9] == ':' && text[14] == ':';
    std::string digits(text);
    if (!is_grouped || std::erase(digits, ':') != 3) return std::nullopt;
    return ParseDigits(digits, 16);
}

std::optional<uint64_t> ParseGuid(std::string_view text) {
    return text.find(':') == text.npos ? ParseNumber(text) : ParseGroups(text);
}

absl::Status ParseItem(std::string_view item, GuidList& guids) {
    const size_t dash = item.find('-');
    const std::optional<uint64_t> first = ParseGuid(item.substr(0, dash));
    const std::optional<uint64_t> last = dash == item.npos ? first : ParseGuid(item.substr(dash + 1));
    if (!first || !last) return Fault(item, "is not a GUID or a range of GUIDs, such as 0x1f, 31 or 0x10-0x1f");
    if (*first == 0 || *last == 0) return Fault(item, "is no GUID: GUIDs begin at 1");
    if (*last < *first) return Fault(item, "is a range that ends before it begins");
    if (*last - *first >= kMaxGuids - guids.size()) {
        return Fault(item, fmt::format("makes the list longer than {} GUIDs", kMaxGuids));
    }
    for (uint64_t guid = *first; guid != *last; ++guid) guids.push_back(guid);
    guids.push_back(*last);
    return absl::OkStatus();
}

}    // namespace

std::optional<uint64_t> ParseNumber(std::string_view text) {
    return IsHexadecimal(text) ? ParseDigits(text.substr(2), 16) : ParseDigits(text, 10);
}

absl::Status ParseGuids(std::string_view text, GuidList& guids) {
    for (size_t begin = text.find_first_not_of(kSeparators); begin != text.npos;) {
        const size_t end = std::min(text.find_first_of(kSeparators, begin), text.size());
        absl::Status status = ParseItem(text.substr(begin, end - begin), guids);
        if (!status.ok()) return status;
        begin = text.find_first_not_of(kSeparators, end);
    }
    return absl::OkStatus();
}

std::string FormatHex(uint64_t number) { return fmt::format("{:#x}", number); }

std::string FoldGuids(const GuidList& guids, size_t max_length) {
    std::string text;
    for (size_t first = 0; first < guids.size();) {
        size_t last = first;
        while (last + 1 < guids.size() && guids[last + 1] == guids[last] + 1) ++last;
        std::string item = (first == 0 ? "" : ",") + FormatHex(guids[first]);
        if (last != first) item += "-" + FormatHex(guids[last]);
        if (text.size() + item.size() > max_length) {
            return text + (first == 0 ? "" : ",") + "... (" + std::to_string(guids.size() - first) + " more)";
        }
        text += item;
        first = last + 1;
    }
    return text;
}

}    // namespace util
