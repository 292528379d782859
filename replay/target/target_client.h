// What a replay asks of a reservation manager, wherever that one runs.

#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace replay {

// A starting job. Each of its trees spans all of its HCAs.
struct JobRequest {
    uint64_t job_id = 0;
    std::string reservation_key;    // of the reservation that is to hold the job
    std::vector<uint64_t> guids;    // of its HCAs, one port each
    uint32_t planes = 0;    // 1 to 255
    uint32_t trees = 0;    // in each plane, 1 to 255
};

struct BeginJobResult {
    uint32_t status = 0;    // 0: admitted; VESK_STATUS_NOT_FOUND: not in its reservation; or as below
    uint64_t reservation_id = 0;    // of the reservation that holds it, when admitted
};

// A job that ran when the replay was stopped.
struct StoredJob {
    JobRequest request;
    uint64_t reservation_id = 0;
    std::set<uint16_t> pkeys;    // that its ports carry
};

// A way to a manager, for one thread at a time. Each operation returns a status: 0 for success, VESK_STATUS_..., or one
// of those below. It throws std::runtime_error when it could not be carried out.
class TargetClient {
public:
    static constexpr uint32_t kNoReply = 0xFFFFFFFF;    // there was no reply to the request
    static constexpr uint32_t kLimitsExceeded = 0xFFFFFFFE;    // the job's trees, or the jobs on an HCA, are too many
    static constexpr uint32_t kAlreadyRunning = 0xFFFFFFFD;    // another job has the job's id

    virtual ~TargetClient() = default;

    // `num_trees` is the reservation's limit per plane, or VESK_LIMIT_NOT_GIVEN.
    virtual uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                                       uint32_t num_trees) = 0;
    virtual uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                                       std::vector<uint64_t> removed) = 0;
    virtual uint32_t DeleteReservation(const std::string& key) = 0;

    // Finds the job's reservation, checks its limits, and adds the job to it.
    virtual BeginJobResult BeginJob(const JobRequest& job) = 0;

    // Removes an admitted job. VESK_STATUS_NOT_FOUND: it is gone already.
    virtual uint32_t EndJob(uint64_t job_id) = 0;

    // Reports the complete set of pkeys that the HCA's one port now carries.
    virtual uint32_t ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) = 0;
};

// "success", "guid_reserved", ...: for people and programs.
std::string StatusName(uint32_t status);

}    // namespace replay
