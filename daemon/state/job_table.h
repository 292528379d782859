// The running jobs, by job id and by the key of their reservation.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "host/job.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// A running job, as the service describes it and as the manager sees it.
struct Job {
    // REQUIRES: the description's GUIDs are ascending and distinct, and it has 1 plane at least.
    explicit Job(v1::Job job_description);

    v1::Job description;    // `accounted` is not used: vesk_job.reservation_accounted is
    VeskJob vesk_job;
};

// Returns the job whose description was packed to these bytes, or null when they are damaged.
std::unique_ptr<Job> UnpackJob(const std::string& packed);

class JobTable {
public:
    // Enters a job under its id and the key of its reservation. REQUIRES: no job with this id is there.
    void Insert(std::unique_ptr<Job> job);

    // Takes a job out. Null when there is none with this id.
    std::unique_ptr<Job> Extract(uint64_t job_id);

    // The job with this id, or null.
    Job* Find(uint64_t job_id) const;

    // The jobs under this key, and all of them, by ascending id. Valid until the next Insert or Extract.
    const std::map<uint64_t, Job*>& OfReservation(std::string_view key) const;
    const std::map<uint64_t, std::unique_ptr<Job>>& all() const { return jobs_; }

private:
    std::map<uint64_t, std::unique_ptr<Job>> jobs_;
    std::map<std::string, std::map<uint64_t, Job*>, std::less<>> jobs_by_key_;    // no empty ones
};

}    // namespace reservationd
