#include "replay/target/command_manager.h"

#include <absl/strings/str_cat.h>

#include <utility>

#include "replay/terminal.h"

namespace replay {

void ReplayCommandManager::Add(std::unique_ptr<VeskJob> job) {
    const VeskExtJobId& id = job->ext_job_id;
    jobs_by_key_[id.reservation_key].insert(job.get());
    jobs_.emplace(id.job_id, std::move(job));
}

VeskJob* ReplayCommandManager::Find(uint64_t job_id) const {
    const auto found = jobs_.find(job_id);
    return found == jobs_.end() ? nullptr : found->second.get();
}

void ReplayCommandManager::Erase(uint64_t job_id) {
    const auto found = jobs_.find(job_id);
    if (found == jobs_.end()) return;
    const std::string& key = found->second->ext_job_id.reservation_key;
    std::set<VeskJob*>& of_key = jobs_by_key_[key];
    of_key.erase(found->second.get());
    if (of_key.empty()) jobs_by_key_.erase(key);
    jobs_.erase(found);
}

uint32_t ReplayCommandManager::StatusOf(uint64_t transaction_id, uint32_t missing) const {
    return num_replies_ > 0 && last_transaction_id_ == transaction_id ? last_status_ : missing;
}

void ReplayCommandManager::SendReservationInfoList(const dov_ep*, vesk_reservation_info_list& list,
                                                   uint64_t transaction_id) const {
    ++num_replies_;
    last_transaction_id_ = transaction_id;
    last_status_ = list.status;
}

void ReplayCommandManager::HandleJobError(VeskJob* job, vesk_error_value, vesk_error_type, bool, bool) {
    PrintMessage(absl::StrCat("job ", job->ext_job_id.ToString(), " lost its reservation"));
}

void ReplayCommandManager::SendEndJob(dov_ep*, const VeskJob*) { ++num_ended_; }

VeskJob* ReplayCommandManager::FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) {
    VeskJob* const job = Find(job_id);
    const bool is_same_job = job != nullptr && job->ext_job_id.reservation_id == reservation_id &&
                             job->ext_job_id.reservation_key == reservation_key;
    return is_same_job ? job : nullptr;
}

void ReplayCommandManager::GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const {
    const auto found = jobs_by_key_.find(reservation_key);
    if (found != jobs_by_key_.end()) jobs = found->second;
}

}    // namespace replay
