#include "replay/run/job_table.h"

#include <utility>

#include "replay/report/terminal.h"

void JobTable::Add(std::unique_ptr<VeskJob> job) {
    const VeskExtJobId& id = job->ext_job_id;
    jobs_by_key_[id.reservation_key].insert(job.get());
    jobs_.emplace(id.job_id, std::move(job));
}

VeskJob* JobTable::Find(uint64_t job_id) const {
    const auto found = jobs_.find(job_id);
    return found == jobs_.end() ? nullptr : found->second.get();
}

void JobTable::Erase(uint64_t job_id) {
    const auto found = jobs_.find(job_id);
    if (found == jobs_.end()) return;
    const std::string& key = found->second->ext_job_id.reservation_key;
    std::set<VeskJob*>& of_key = jobs_by_key_[key];
    of_key.erase(found->second.get());
    if (of_key.empty()) jobs_by_key_.erase(key);
    jobs_.erase(found);
}

uint32_t JobTable::StatusOf(uint64_t transaction_id, uint32_t missing) const {
    return num_replies_ > 0 && last_transaction_id_ == transaction_id ? last_status_ : missing;
}

void JobTable::SendReservationInfoList(const dov_ep*, vesk_reservation_info_list& list, uint64_t transaction_id) const {
    ++num_replies_;
    last_transaction_id_ = transaction_id;
    last_status_ = list.status;
}

void JobTable::HandleJobError(VeskJob* job, vesk_error_value, vesk_error_type, bool, bool) {
    PrintMessage("job " + job->ext_job_id.ToString() + " lost its reservation");
}

void JobTable::SendEndJob(dov_ep*, const VeskJob*) { ++num_ended_; }

VeskJob* JobTable::FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) {
    VeskJob* job = Find(job_id);
    const bool is_that_job = job != nullptr && job->ext_job_id.reservation_id == reservation_id &&
                             job->ext_job_id.reservation_key == reservation_key;
    return is_that_job ? job : nullptr;
}

void JobTable::GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const {
    const auto found = jobs_by_key_.find(reservation_key);
    if (found != jobs_by_key_.end()) jobs = found->second;
}
