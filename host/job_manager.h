// Where the reservation manager finds running jobs. The daemon implements it.

#pragma once

#include <cstdint>
#include <set>

class VeskJob;

class JobManager {
public:
    virtual ~JobManager() = default;

    // The running job with this id in this reservation, or null when there is none any more. The job stays the
    // daemon's.
    virtual VeskJob* FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) = 0;

    // Puts every running job whose ext_job_id.reservation_key equals the key into `jobs`, which comes empty.
    virtual void GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const = 0;
};
