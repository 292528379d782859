// What a replay asks of a reservation manager, wherever that one runs.

#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

// A job as its starter describes it. Each of its trees spans all of its HCAs.
struct JobRequest {
    uint64_t job_id = 0;
    std::string reservation_key;    // of the reservation that is to hold the job
    std::vector<uint64_t> guids;    // of its HCAs, one port each
    uint32_t planes = 0;    // 1 to 255
    uint32_t trees = 0;    // in each plane, 1 to 255
};

// Answer to the start of a job.
struct JobVerdict {
    uint32_t status = 0;    // 0: admitted; VESK_STATUS_NOT_FOUND: not in its reservation; or as below
    uint64_t reservation_id = 0;    // of the reservation that holds it, when admitted
};

// A job that ran when the daemon stopped.
struct StoredJob {
    JobRequest request;
    uint64_t reservation_id = 0;
    std::set<uint16_t> pkeys;    // that its ports carry; with automatic reservations
};

// Every operation returns a status: 0, VESK_STATUS_..., or one of those below. One that cannot be carried out at all
// throws std::runtime_error.
class ReservationService {
public:
    static constexpr uint32_t kNoReply = 0xFFFFFFFF;    // there was no reply to the request
    static constexpr uint32_t kLimitsExceeded = 0xFFFFFFFE;    // the job's trees, or jobs on an HCA, are too many
    static constexpr uint32_t kAlreadyRunning = 0xFFFFFFFD;    // another job has the job's id

    virtual ~ReservationService() = default;

    // `num_trees` is the reservation's limit, or VESK_LIMIT_NOT_GIVEN.
    virtual uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                                       uint32_t num_trees) = 0;
    virtual uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                                       std::vector<uint64_t> removed) = 0;
    virtual uint32_t DeleteReservation(const std::string& key) = 0;

    // Finds the job's reservation, checks its limits, and adds the job to it.
    virtual JobVerdict BeginJob(const JobRequest& job) = 0;

    // Takes an admitted job out again. VESK_STATUS_NOT_FOUND: it is not there any more.
    virtual uint32_t EndJob(uint64_t job_id) = 0;

    // Tells all the pkeys that an HCA's one port carries from now on.
    virtual uint32_t ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) = 0;
};

// What a person or a program reads for a status: "success", "guid_reserved", ...
std::string StatusName(uint32_t status);
