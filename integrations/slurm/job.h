// A job of Slurm's, as its controller tells a hook of it.

#pragma once

#include <absl/status/statusor.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace reservation_slurm {

struct SlurmJob {
    uint64_t id = 0;
    std::string nodes;    // a host expression
    std::string account;    // these may be empty
    std::string user;
    std::string partition;
    std::string comment;
    bool is_restarted = false;    // it ran, or was refused, before
};

// Returns the value of an environment variable, or null.
using Environment = std::function<const char*(const char* name)>;

// Reads what PrologSlurmctld and EpilogSlurmctld find in their environment. InvalidArgument names the variable at
// fault.
absl::StatusOr<SlurmJob> ReadJob(const Environment& environment);

// What a job asks for itself. Nothing where it does not say.
struct JobWishes {
    std::optional<uint32_t> trees;
    std::optional<uint32_t> planes;
    std::string reservation;    // empty: none named
};

// Reads a comment such as "trees=4 planes=2 reservation=NAME". A comment with none of the three is any other text, and
// wishes nothing. In one with any of them, each word has to be one of the three, once; InvalidArgument names the word
// at fault.
absl::StatusOr<JobWishes> ParseComment(std::string_view comment);

}    // namespace reservation_slurm
