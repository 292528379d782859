#include "integrations/slurm/position.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <vector>

#include "util/file.h"

namespace reservation_slurm {

absl::StatusOr<Position> Position::Read(const std::string& path) {
    const absl::StatusOr<std::string> text = util::ReadWholeFile(path);
    if (!text.ok()) return text.status();
    const std::vector<std::string> words = absl::StrSplit(*text, absl::ByAnyChar(" \n"), absl::SkipEmpty());
    Position position;
    if (words.size() != 2 || !absl::SimpleAtoi(words[1], &position.sequence)) {
        return absl::InvalidArgumentError(path + ": does not hold an epoch and a number");
    }
    position.epoch = words[0];
    return position;
}

absl::Status Position::Write(const std::string& path) const {
    return util::ReplaceWholeFile(path, fmt::format("{} {}\n", epoch, sequence));
}

}    // namespace reservation_slurm
