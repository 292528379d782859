#include "client/scheduler_jobs.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_cat.h>
#include <absl/strings/str_split.h>

#include <limits>
#include <vector>

#include "util/text.h"

namespace client {

absl::StatusOr<SchedulerJobs> SchedulerJobs::Parse(std::string_view text, const std::string& source) {
    SchedulerJobs jobs;
    size_t line_number = 0;
    for (const absl::string_view line : absl::StrSplit(absl::string_view(text.data(), text.size()), '\n')) {
        ++line_number;
        const std::vector<absl::string_view> words = absl::StrSplit(line, absl::ByAnyChar(" \t\r"), absl::SkipEmpty());
        if (words.empty()) continue;
        uint64_t job_id = 0;
        int64_t seconds = 0;
        const bool is_good = words.size() == 2 && absl::SimpleAtoi(words[0], &job_id) &&
                             absl::SimpleAtoi(words[1], &seconds) && seconds >= 0 &&
                             seconds <= std::numeric_limits<int64_t>::max() / 1000;
        if (!is_good) {
            return absl::InvalidArgumentError(absl::StrCat(source, ":", line_number, ": '",
                                                           util::TruncateForMessage({line.data(), line.size()}),
                                                           "' is not a job's id and its time in seconds since 1970"));
        }
        jobs.unix_millis_[job_id] = seconds * 1000;
    }
    return jobs;
}

bool SchedulerJobs::Contains(uint64_t job_id, int64_t start_unix_millis) const {
    const auto found = unix_millis_.find(job_id);
    return found != unix_millis_.end() && (start_unix_millis == 0 || found->second <= start_unix_millis);
}

}    // namespace client
