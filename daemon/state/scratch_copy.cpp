#include "daemon/state/scratch_copy.h"

#include <algorithm>
#include <utility>

namespace reservationd {

namespace {

// Work is counted in look-ups of GUIDs.
constexpr size_t kWorkOfStep = 8'000;
constexpr size_t kWorkOfEntry = 4;    // of a reservation or job, and what its GUIDs take
constexpr size_t kGuidsOfUnit = 64;

using Guids = google::protobuf::RepeatedField<uint64_t>;

void AddGuids(const Guids& guids, NamedThings& named) {
    named.guids.insert(named.guids.end(), guids.begin(), guids.end());
}

void AddNames(const v1::CreateReservationRequest& request, NamedThings& named) {
    named.keys.insert(request.key());
    AddGuids(request.guids(), named);
}

// The GUIDs to remove are in the reservation, or in none that matters; but the more there are, the longer it takes.
void AddNames(const v1::UpdateReservationRequest& request, NamedThings& named) {
    named.keys.insert(request.key());
    AddGuids(request.add_guids(), named);
    AddGuids(request.remove_guids(), named);
}

void AddNames(const v1::DeleteReservationRequest& request, NamedThings& named) { named.keys.insert(request.key()); }

void AddNames(const v1::BeginJobRequest& request, NamedThings& named) {
    named.job_ids.push_back(request.job_id());
    AddGuids(request.guids(), named);
}

void AddNames(const v1::EndJobRequest& request, NamedThings& named) { named.job_ids.push_back(request.job_id()); }

void AddNames(const v1::Operation& operation, NamedThings& named) {
    switch (operation.operation_case()) {
        case v1::Operation::kCreateReservation:
            return AddNames(operation.create_reservation(), named);
        case v1::Operation::kUpdateReservation:
            return AddNames(operation.update_reservation(), named);
        case v1::Operation::kDeleteReservation:
            return AddNames(operation.delete_reservation(), named);
        case v1::Operation::kBeginJob:
            return AddNames(operation.begin_job(), named);
        case v1::Operation::kEndJob:
            return AddNames(operation.end_job(), named);
        case v1::Operation::OPERATION_NOT_SET:
            return;
    }
}

void AddNames(const v1::TransactRequest& request, NamedThings& named) {
    for (const v1::Operation& operation : request.operations()) AddNames(operation, named);
}

template <typename Request>
NamedThings NamesIn(const Request& request) {
    NamedThings named;
    AddNames(request, named);
    return named;
}

}    // namespace

NamedThings NamedBy(const v1::CreateReservationRequest& request) { return NamesIn(request); }
NamedThings NamedBy(const v1::UpdateReservationRequest& request) { return NamesIn(request); }
NamedThings NamedBy(const v1::DeleteReservationRequest& request) { return NamesIn(request); }
NamedThings NamedBy(const v1::Operation& operation) { return NamesIn(operation); }
NamedThings NamedBy(const v1::TransactRequest& request) { return NamesIn(request); }

ScratchCopy::ScratchCopy(NamedThings named) : named_(std::move(named)), keys_to_copy_(named_.keys) {
    // Neighbours are found faster.
    if (!std::is_sorted(named_.guids.begin(), named_.guids.end())) std::sort(named_.guids.begin(), named_.guids.end());
}

bool ScratchCopy::Advance(const ReservationState& state) {
    for (size_t work = 0; work < kWorkOfStep;) {
        if (num_guids_done_ < named_.guids.size()) {
            work += LookUpGuids(state, kWorkOfStep - work);
        } else if (num_jobs_done_ < named_.job_ids.size()) {
            work += LookUpJobs(state, kWorkOfStep - work);
        } else if (!key_to_search_.empty()) {
            work += FindJobs(state, kWorkOfStep - work);
        } else if (!jobs_to_copy_.empty()) {
            work += CopyJob(state);
        } else if (!keys_to_copy_.empty()) {
            work += CopyReservation(state);
        } else {
            options_ = state.context_.options;
            return true;
        }
    }
    return false;
}

// A change that comes later than the look-up, the copying or the search is noted, so that nothing is missed.
void ScratchCopy::NoteChanges(const StoreChanges& changes) {
    for (const auto& [key, reservation] : changes.reservations) keys_to_copy_.insert(key);
    for (const auto& [job_id, job] : changes.jobs) jobs_to_copy_.insert(job_id);
}

void ScratchCopy::Restart() { *this = ScratchCopy(std::move(named_)); }

// Each of these does a part of the work, and returns how much.

size_t ScratchCopy::LookUpGuids(const ReservationState& state, size_t max_work) {
    const size_t count = std::min(max_work, named_.guids.size() - num_guids_done_);
    const ReservationInfo* last_owner = nullptr;
    size_t work = count;
    for (size_t i = 0; i < count; ++i) {
        const ReservationInfo* const owner = state.OwnerOf(named_.guids[num_guids_done_ + i]);
        if (owner == nullptr || owner == last_owner) continue;
        keys_to_copy_.insert(owner->info.reservation_key);
        last_owner = owner;
        work += kWorkOfEntry;
    }
    num_guids_done_ += count;
    return work;
}

size_t ScratchCopy::LookUpJobs(const ReservationState& state, size_t max_work) {
    const size_t count = std::min(max_work, named_.job_ids.size() - num_jobs_done_);
    for (size_t i = 0; i < count; ++i) {
        const Job* const job = state.jobs_.Find(named_.job_ids[num_jobs_done_ + i]);
        if (job != nullptr) keys_to_copy_.insert(job->description.reservation_key());
    }
    num_jobs_done_ += count;
    return count * kWorkOfEntry;
}

size_t ScratchCopy::CopyReservation(const ReservationState& state) {
    std::string key = std::move(keys_to_copy_.extract(keys_to_copy_.begin()).value());
    const auto [entry, is_new] = reservations_.insert_or_assign(key, Reservation{});
    if (is_new) {
        key_to_search_ = std::move(key);
        last_job_found_ = 0;
    }
    const ReservationInfo* const original = state.manager_->GetReservationInfoByKey(entry->first);
    if (original == nullptr) return kWorkOfEntry;
    entry->second = {std::make_unique<ReservationInfo>(&original->info), original->reservation_id};
    return kWorkOfEntry + original->info.num_guids / kGuidsOfUnit;
}

size_t ScratchCopy::FindJobs(const ReservationState& state, size_t max_work) {
    const std::map<uint64_t, Job*>& jobs = state.jobs_.OfReservation(key_to_search_);
    size_t work = 1;
    auto job = jobs.upper_bound(last_job_found_);
    for (; job != jobs.end() && work < max_work; ++job, ++work) {
        last_job_found_ = job->first;
        jobs_to_copy_.insert(job->first);
    }
    if (job == jobs.end()) key_to_search_.clear();
    return work;
}

size_t ScratchCopy::CopyJob(const ReservationState& state) {
    const uint64_t job_id = jobs_to_copy_.extract(jobs_to_copy_.begin()).value();
    const Job* const original = state.jobs_.Find(job_id);
    if (original == nullptr) {
        jobs_.erase(job_id);
        return kWorkOfEntry;
    }
    jobs_[job_id] = original->description;
    return kWorkOfEntry + static_cast<size_t>(original->description.guids_size()) / kGuidsOfUnit;
}

std::unique_ptr<ReservationState> ScratchCopy::MakeState() {
    auto state = std::make_unique<ReservationState>(options_, nullptr);
    for (auto& [job_id, job] : jobs_) state->jobs_.Insert(std::make_unique<Job>(std::move(job)));
    for (auto& [key, reservation] : reservations_) {
        if (reservation.info != nullptr) state->Enter(std::move(reservation.info), reservation.id);
    }
    return state;
}

}    // namespace reservationd
