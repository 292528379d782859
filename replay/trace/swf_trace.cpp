#include "replay/trace/swf_trace.h"

#include <array>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <string_view>

#include "host/hash_bytes.h"
#include "replay/file.h"

namespace {

constexpr size_t kNumFields = 18;
constexpr std::string_view kBlanks = " \t\r";

// Takes the next word off the line; an empty one at its end.
std::string_view TakeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(word.size());
    return word;
}

// Whether the word is a number, and one that can be added to others without overflow.
bool ParseNumber(std::string_view word, int64_t& number) {
    constexpr double kLargest = 1e15;
    double value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size() || !(std::abs(value) <= kLargest)) return false;
    number = std::llround(value);
    return true;
}

// Reads "; NAME: NUMBER ..." into `number`; a line that is none, or has no count there, leaves it.
void ParseHeader(std::string_view line, std::string_view name, int64_t& number) {
    line.remove_prefix(1);
    int64_t value = 0;
    if (TakeWord(line) == name && ParseNumber(TakeWord(line), value) && value > 0) number = value;
}

SwfJob ParseJob(std::string_view line, const std::string& place) {
    std::array<int64_t, kNumFields> fields;
    size_t count = 0;
    for (std::string_view word = TakeWord(line); !word.empty(); word = TakeWord(line), ++count) {
        if (count < kNumFields && !ParseNumber(word, fields[count])) {
            throw InputError(place + "field " + std::to_string(count + 1) + " is not a number: '" +
                             Printable(word.substr(0, 40)) + "'");
        }
    }
    if (count != kNumFields) throw InputError(place + "expected 18 numbers, found " + std::to_string(count));
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
    const std::string content = ReadFile(path);
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
            ParseHeader(line, "MaxNodes:", trace.max_nodes);
            ParseHeader(line, "MaxProcs:", trace.max_procs);
            continue;
        }
        trace.jobs.push_back(ParseJob(line, path + ":" + std::to_string(line_number) + ": "));
    }
    if (trace.jobs.empty()) throw InputError(path + ": there is no job in it");
    return trace;
}
