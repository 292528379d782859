#include "replay/trace/swf_trace.h"

#include <absl/strings/str_cat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string_view>

#include "host/hash_bytes.h"
#include "replay/input_error.h"
#include "util/file.h"
#include "util/text.h"

namespace replay {

namespace {

constexpr size_t kNumFields = 18;
constexpr std::string_view kBlanks = " \t\r";

// Removes the next word from the line and returns it; at the end of the line, an empty one.
std::string_view TakeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(word.size());
    return word;
}

// The number, rounded; none when the word is no number, or so large that sums of such numbers might overflow.
std::optional<int64_t> ParseNumber(std::string_view word) {
    constexpr double kLargest = 1e15;
    double value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size() || !(std::abs(value) <= kLargest)) return std::nullopt;
    return std::llround(value);
}

// The number in a line "; NAME NUMBER ..."; `otherwise` when the line has another name, or no positive number.
int64_t ParseHeader(std::string_view line, std::string_view name, int64_t otherwise) {
    line.remove_prefix(1);
    if (TakeWord(line) != name) return otherwise;
    const int64_t number = ParseNumber(TakeWord(line)).value_or(0);
    return number > 0 ? number : otherwise;
}

// `place` is the file and line, for messages.
SwfJob ParseJob(std::string_view line, const std::string& place) {
    std::array<int64_t, kNumFields> fields;
    size_t count = 0;
    for (std::string_view word = TakeWord(line); !word.empty(); word = TakeWord(line), ++count) {
        if (count >= kNumFields) continue;
        const std::optional<int64_t> number = ParseNumber(word);
        if (!number.has_value()) {
            throw InputError(
                absl::StrCat(place, ": field ", count + 1, " is not a number: '", util::TruncateForMessage(word), "'"));
        }
        fields[count] = *number;
    }
    if (count != kNumFields)
        throw InputError(absl::StrCat(place, ": expected ", kNumFields, " numbers, found ", count));
    return {.number = fields[0],
            .submit_time = fields[1],
            .wait_time = fields[2],
            .run_time = fields[3],
            .allocated_procs = fields[4],
            .requested_procs = fields[7],
            .user = fields[11],
            .group = fields[12]};
}

}    // namespace

SwfTrace ReadSwfTrace(const std::string& path) {
    const std::string content = ValueOrInputError(util::ReadWholeFile(path));
    SwfTrace trace;
    trace.name = std::filesystem::path(path).filename();
    trace.size = content.size();
    trace.hash = HashBytes(content);

    std::string_view rest = content;
    for (size_t line_number = 1; !rest.empty(); ++line_number) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.find_first_not_of(kBlanks) == std::string_view::npos) continue;
        if (line.front() == ';') {
            trace.max_nodes = ParseHeader(line, "MaxNodes:", trace.max_nodes);
            trace.max_procs = ParseHeader(line, "MaxProcs:", trace.max_procs);
            continue;
        }
        trace.jobs.push_back(ParseJob(line, absl::StrCat(path, ":", line_number)));
    }
    if (trace.jobs.empty()) throw InputError(path + ": has no job");
    return trace;
}

}    // namespace replay
