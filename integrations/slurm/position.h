// How far the service has followed the daemon's events, kept in a file.

#pragma once

#include <absl/status/status.h>
#include <absl/status/statusor.h>

#include <cstdint>
#include <string>

namespace reservation_slurm {

struct Position {
    std::string epoch;    // that the events are numbered in; empty: nothing has been read
    uint64_t sequence = 0;    // of the last event that has been dealt with

    // Not found where there is no such file; InvalidArgument, with the path, when it holds anything else.
    static absl::StatusOr<Position> Read(const std::string& path);

    absl::Status Write(const std::string& path) const;
};

}    // namespace reservation_slurm
