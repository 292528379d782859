#include "ctl/guid_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <istream>
#include <optional>
#include <sstream>

#include "ctl/errors.h"
#include "util/file.h"

namespace reservationctl {
namespace {

constexpr std::string_view kSeparators = ", \t\r\n\v\f";

[[noreturn]] void Fail(const std::string& source, std::string_view item, const std::string& fault) {
    throw UsageError(source + ": '" + std::string(item) + "' " + fault);
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

std::optional<uint64_t> ParseNumber(std::string_view text) {
    return IsHexadecimal(text) ? ParseDigits(text.substr(2), 16) : ParseDigits(text, 10);
}

// 0200:0000:00a1:b2c0, as the tools of the HCAs print it.
std::optional<uint64_t> ParseGroups(std::string_view text) {
    const bool is_grouped = text.size() == 19 && text[4] == ':' && text[9] == ':' && text[14] == ':';
    std::string digits(text);
    if (!is_grouped || std::erase(digits, ':') != 3) return std::nullopt;
    return ParseDigits(digits, 16);
}

uint64_t ParseGuid(std::string_view text, std::string_view item, const std::string& source) {
    const std::optional<uint64_t> guid = text.find(':') == text.npos ? ParseNumber(text) : ParseGroups(text);
    if (!guid) Fail(source, item, "is not a GUID or a range of GUIDs, such as 0x1f, 31 or 0x10-0x1f");
    if (*guid == 0) Fail(source, item, "is no GUID: GUIDs begin at 1");
    return *guid;
}

void ParseItem(std::string_view item, const std::string& source, GuidList& guids) {
    const size_t dash = item.find('-');
    const uint64_t first = ParseGuid(item.substr(0, dash), item, source);
    const uint64_t last = dash == item.npos ? first : ParseGuid(item.substr(dash + 1), item, source);
    if (last < first) Fail(source, item, "is a range that ends before it begins");
    if (last - first >= kMaxGuids - guids.size()) {
        Fail(source, item, fmt::format("makes the list longer than {} GUIDs", kMaxGuids));
    }
    for (uint64_t guid = first; guid != last; ++guid) guids.push_back(guid);
    guids.push_back(last);
}

void ReadGuidLines(std::istream& input, const std::string& name, GuidList& guids) {
    std::string line;
    for (size_t number = 1; std::getline(input, line); ++number) {
        ParseGuids(std::string_view(line).substr(0, line.find('#')), fmt::format("{}:{}", name, number), guids);
    }
    if (input.bad()) throw UsageError(name + ": cannot be read");
}

}    // namespace

uint64_t ParseNumber(std::string_view text, uint64_t min, uint64_t max, const std::string& source) {
    const std::optional<uint64_t> number = ParseNumber(text);
    if (!number || *number < min || *number > max) {
        Fail(source, text, fmt::format("is not a number from {} to {}", min, max));
    }
    return *number;
}

void ParseGuids(std::string_view text, const std::string& source, GuidList& guids) {
    for (size_t begin = text.find_first_not_of(kSeparators); begin != text.npos;) {
        const size_t end = std::min(text.find_first_of(kSeparators, begin), text.size());
        ParseItem(text.substr(begin, end - begin), source, guids);
        begin = text.find_first_not_of(kSeparators, end);
    }
}

GuidList ReadGuids(const std::vector<std::string>& values, const std::string& option, std::istream& standard_input) {
    GuidList guids;
    for (const std::string& value : values) {
        if (value == "-") {
            if (!standard_input) throw UsageError(option + ": standard input has been read already");
            ReadGuidLines(standard_input, "standard input", guids);
        } else if (value.starts_with('@')) {
            const std::string path = value.substr(1);
            const absl::StatusOr<std::string> content = util::ReadWholeFile(path);
            if (!content.ok()) throw UsageError(fmt::format("{}: {}", option, std::string(content.status().message())));
            std::istringstream lines(*content);
            ReadGuidLines(lines, path, guids);
        } else {
            ParseGuids(value, option, guids);
        }
    }
    return guids;
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

}    // namespace reservationctl
