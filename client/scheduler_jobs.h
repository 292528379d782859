// A scheduler's view of which jobs run, compared with the daemon's.

#pragma once

#include <absl/status/statusor.h>
#include <absl/time/time.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "reservation/v1/reservation.pb.h"

namespace client {

// The jobs that a scheduler runs. Each has a time that tells it from earlier jobs with its id: when it was started,
// submitted or requeued, but not before an earlier one with its id was started.
class SchedulerJobs {
public:
    // Reads lines of two numbers: a job's id and its time, in seconds since 1970. Blank lines do not count. Otherwise
    // InvalidArgument, with a message that begins with `source` and the line's number.
    static absl::StatusOr<SchedulerJobs> Parse(std::string_view text, const std::string& source);

    // Whether the scheduler runs the job with this id that was started then.
    bool Contains(uint64_t job_id, int64_t start_unix_millis) const;

private:
    std::unordered_map<uint64_t, int64_t> unix_millis_;    // by id
};

}    // namespace client
