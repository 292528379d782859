#include "integrations/slurm/job.h"

#include <absl/strings/match.h>
#include <absl/strings/numbers.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "util/limits.h"
#include "util/text.h"

namespace reservation_slurm {
namespace {

constexpr absl::string_view kTrees = "trees=";
constexpr absl::string_view kPlanes = "planes=";
constexpr absl::string_view kReservation = "reservation=";

template <typename... Args>
absl::Status Invalid(fmt::format_string<Args...> format, Args&&... args) {
    return absl::InvalidArgumentError(fmt::format(format, std::forward<Args>(args)...));
}

bool IsWish(absl::string_view word) {
    return absl::StartsWith(word, kTrees) || absl::StartsWith(word, kPlanes) || absl::StartsWith(word, kReservation);
}

absl::Status SetCount(absl::string_view word, uint32_t min, uint32_t max, std::optional<uint32_t>& count) {
    uint32_t number = 0;
    const absl::string_view text = word.substr(word.find('=') + 1);
    if (count) return Invalid("'{}' is there twice", std::string(word.substr(0, word.find('='))));
    if (!absl::SimpleAtoi(text, &number) || number < min || number > max) {
        return Invalid("'{}' is not a number from {} to {}", util::TruncateForMessage({word.data(), word.size()}), min,
                       max);
    }
    count = number;
    return absl::OkStatus();
}

absl::Status SetReservation(absl::string_view word, std::string& reservation) {
    if (!reservation.empty()) return Invalid("'reservation' is there twice");
    reservation = std::string(word.substr(kReservation.size()));
    return reservation.empty() ? Invalid("'reservation=' names none") : absl::OkStatus();
}

absl::Status SetWish(absl::string_view word, JobWishes& wishes) {
    if (absl::StartsWith(word, kTrees)) return SetCount(word, 0, util::kMaxTrees, wishes.trees);
    if (absl::StartsWith(word, kPlanes)) return SetCount(word, 1, util::kMaxPlanes, wishes.planes);
    if (absl::StartsWith(word, kReservation)) return SetReservation(word, wishes.reservation);
    return Invalid("'{}' is none of trees=N, planes=N and reservation=NAME",
                   util::TruncateForMessage({word.data(), word.size()}));
}

}    // namespace

absl::StatusOr<SlurmJob> ReadJob(const Environment& environment) {
    const auto text = [&](const char* name) {
        const char* const value = environment(name);
        return std::string(value != nullptr ? value : "");
    };
    SlurmJob job{.nodes = text("SLURM_JOB_NODELIST"),
                 .account = text("SLURM_JOB_ACCOUNT"),
                 .user = text("SLURM_JOB_USER"),
                 .partition = text("SLURM_JOB_PARTITION"),
                 .comment = text("SLURM_JOB_COMMENT")};
    const std::string id = text("SLURM_JOB_ID");
    if (!absl::SimpleAtoi(id, &job.id) || job.id == 0) {
        return Invalid("SLURM_JOB_ID is '{}': it is Slurm's controller that runs this", util::TruncateForMessage(id));
    }
    const std::string restart_count = text("SLURM_JOB_RESTART_COUNT");
    job.is_restarted = !restart_count.empty() && restart_count != "0";
    return job;
}

absl::StatusOr<JobWishes> ParseComment(std::string_view comment) {
    const std::vector<absl::string_view> words =
        absl::StrSplit(absl::string_view(comment.data(), comment.size()), absl::ByAnyChar(" \t\n,"), absl::SkipEmpty());
    JobWishes wishes;
    if (std::none_of(words.begin(), words.end(), IsWish)) return wishes;
    for (const absl::string_view word : words) {
        if (const absl::Status status = SetWish(word, wishes); !status.ok()) return status;
    }
    return wishes;
}

}    // namespace reservation_slurm
