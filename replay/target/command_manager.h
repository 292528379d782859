// The command manager of a manager in this process.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "host/command_manager.h"
#include "host/job.h"

namespace replay {

// Owns the running jobs, takes the manager's replies, and counts the jobs that it ends.
class ReplayCommandManager : public CommandManager {
public:
    // REQUIRES: ext_job_id does not change any more, and no job of the table has its job id.
    void Add(std::unique_ptr<VeskJob> job);

    // The job with this id, or null. A job that the manager ended stays until it is erased.
    VeskJob* Find(uint64_t job_id) const;

    void Erase(uint64_t job_id);

    const std::map<uint64_t, std::unique_ptr<VeskJob>>& jobs() const { return jobs_; }

    uint64_t num_ended() const { return num_ended_; }    // by the manager
    uint64_t num_replies() const { return num_replies_; }

    // The status of the last reply when it answers this transaction, else `missing`.
    uint32_t StatusOf(uint64_t transaction_id, uint32_t missing) const;

    void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list,
                                 uint64_t transaction_id) const override;
    void HandleJobError(VeskJob* job, vesk_error_value value, vesk_error_type type, bool, bool) override;
    void SendEndJob(dov_ep* ep, const VeskJob* job) override;
    VeskJob* FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) override;
    void GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const override;

private:
    std::map<uint64_t, std::unique_ptr<VeskJob>> jobs_;
    std::unordered_map<std::string, std::set<VeskJob*>> jobs_by_key_;
    uint64_t num_ended_ = 0;

    // SendReservationInfoList, which is const, writes these.
    mutable uint64_t num_replies_ = 0;
    mutable uint64_t last_transaction_id_ = 0;
    mutable uint32_t last_status_ = 0;
};

}    // namespace replay
