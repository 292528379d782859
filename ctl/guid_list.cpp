#include "ctl/guid_list.h"

#include <fmt/format.h>

#include <istream>
#include <optional>
#include <sstream>

#include "ctl/errors.h"
#include "util/file.h"

namespace reservationctl {
namespace {

void ReadGuidLines(std::istream& input, const std::string& name, GuidList& guids) {
    std::string line;
    for (size_t number = 1; std::getline(input, line); ++number) {
        ParseGuids(std::string_view(line).substr(0, line.find('#')), fmt::format("{}:{}", name, number), guids);
    }
    if (input.bad()) throw UsageError(name + ": cannot be read");
}

}    // namespace

uint64_t ParseNumber(std::string_view text, uint64_t min, uint64_t max, const std::string& source) {
    const std::optional<uint64_t> number = util::ParseNumber(text);
    if (!number || *number < min || *number > max) {
        throw UsageError(fmt::format("{}: '{}' is not a number from {} to {}", source, text, min, max));
    }
    return *number;
}

void ParseGuids(std::string_view text, const std::string& source, GuidList& guids) {
    const absl::Status status = util::ParseGuids(text, guids);
    if (!status.ok()) throw UsageError(source + ": " + std::string(status.message()));
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

}    // namespace reservationctl
