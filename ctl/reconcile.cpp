#include "ctl/reconcile.h"

#include <fmt/format.h>

#include <iostream>

#include "client/scheduler_jobs.h"
#include "ctl/describe.h"
#include "ctl/input.h"
#include "util/text.h"

namespace reservationctl {
namespace {

client::SchedulerJobs ReadSchedulerJobs(const std::string& path) {
    const Input input = ReadInput(path);
    auto jobs = client::SchedulerJobs::Parse(input.content, input.name);
    if (!jobs.ok()) throw UsageError(std::string(jobs.status().message()));
    return *std::move(jobs);
}

void EndUnknownJob(const Client& client, const v1::Job& job, bool is_dry_run) {
    v1::EndJobRequest request;
    request.set_job_id(job.job_id());
    request.set_start_unix_millis(job.start_unix_millis());
    if (!is_dry_run && !Call(client, request).was_running()) return;
    std::cout << fmt::format("{} job {} of {}, started {}\n", is_dry_run ? "would end" : "ended", job.job_id(),
                             util::Printable(job.reservation_key()), DescribeStart(job));
}

}    // namespace

// The daemon's jobs are read first: one that begins meanwhile is not among them.
ExitStatus ReconcileJobs(const Client& client, const ReconcileSettings& settings) {
    const auto newest = std::chrono::system_clock::now() - settings.min_age;
    const int64_t newest_unix_millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(newest.time_since_epoch()).count();
    const v1::ListJobsReply running = CallForAllPages(client, v1::ListJobsRequest());
    const client::SchedulerJobs known = ReadSchedulerJobs(settings.path);
    size_t num_left_alone = 0;
    for (const v1::Job& job : running.jobs()) {
        const int64_t start = job.start_unix_millis();
        if (known.Contains(job.job_id(), start)) continue;
        if (start > newest_unix_millis || (start == 0 && !settings.all)) {
            ++num_left_alone;
        } else {
            EndUnknownJob(client, job, settings.dry_run);
        }
    }
    if (num_left_alone > 0) {
        std::cout << fmt::format("left {} alone: unknown to the scheduler, but just begun or without a start time\n",
                                 Count(num_left_alone, "job"));
    }
    return ExitStatus::kDone;
}

}    // namespace reservationctl
