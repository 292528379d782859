#include "daemon/state/reservation_state.h"

#include <absl/strings/numbers.h>
#include <absl/strings/str_cat.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "daemon/state/packed_record.h"
#include "daemon/state/page.h"
#include "daemon/state/request_records.h"

namespace reservationd {

namespace {

constexpr int kMaxNewLimits = 4'000;    // set at once

int64_t NowInUnixMillis() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// Whether the entry of a reply says nothing but the key: that of a request refused before a reservation was looked up.
bool HasKeyOnly(const vesk_reservation_info& entry) {
    return entry.state == VESK_STATE_NONE && entry.guids == nullptr &&
           std::all_of(std::begin(entry.limits), std::end(entry.limits), [](uint32_t limit) { return limit == 0; });
}

void DescribeAccount(const ReservationInfo& info, v1::Reservation* reservation) {
    reservation->set_id(info.reservation_id);
    reservation->set_max_trees(info.max_trees);
    reservation->set_used_trees(info.used_trees);
    for (const auto& [job_id, job] : info.jobs) reservation->add_job_ids(job_id);
}

void RefuseFreeNodes(const v1::FreeNodes& wanted, v1::ReservationReply* reply) {
    reply->set_status(v1::STATUS_TOO_FEW_FREE_NODES);
    reply->set_status_name(v1::Status_Name(reply->status()));
    reply->set_reason(absl::StrCat("Fewer than ", wanted.count(), " of the nodes are free"));
}

std::unique_ptr<ReservationInfo> Unpack(const std::string& key, const std::string& packed) {
    std::unique_ptr<ReservationInfo> reservation = UnpackRecord(packed);
    if (reservation == nullptr) throw std::runtime_error("stored reservation " + key + " is damaged");
    return reservation;
}

}    // namespace

// The manager, with what it would write to files noted as changes instead.
class ReservationState::RecordingManager final : public ReservationManager {
public:
    RecordingManager(CommandManager* manager, StateChanges& changes) : ReservationManager(manager), changes_(changes) {}

    void CreateReservationInfoFile(const vesk_reservation_info& info, const std::string&) override {
        const uint64_t id = GetReservationInfoByKey(info.reservation_key)->reservation_id;
        changes_.reservations.insert_or_assign(info.reservation_key, StoredReservation{PackRecord(info), id, 0});
    }

    void UpdateReservationInfoFile(const vesk_reservation_info& info, const std::string& dir) override {
        CreateReservationInfoFile(info, dir);
    }

    void DeleteReservationInfoFile(const vesk_reservation_info& info, const std::string&) override {
        changes_.reservations.insert_or_assign(info.reservation_key, std::nullopt);
    }

private:
    StateChanges& changes_;
};

ReservationState::ReservationState(const OptionInfo& options, LogFunction log, uint64_t failed_requests)
    : ReservationState(std::make_shared<OptionInfo>(options), std::move(log), failed_requests) {}

ReservationState::ReservationState(std::shared_ptr<OptionInfo> options, LogFunction log, uint64_t failed_requests)
    : context_{std::move(options), this, std::move(log), ""},
      failed_requests_(failed_requests),
      manager_(new RecordingManager(this, changes_)) {}

ReservationState::~ReservationState() = default;

// ---- Requests about reservations ----

// Runs an operation of the manager that sends one reply, and completes the reply. A refusal changes nothing, so that
// what it ran into can be looked up afterwards.
template <typename Operation>
void ReservationState::RunRequest(v1::ReservationReply* reply, const WantedChange& change, Operation operation) {
    const ManagerScope scope(context_);
    const size_t num_events = changes_.events.size();
    reply_ = reply;
    with_details_ = true;
    operation();
    if (reply->status() != v1::STATUS_SUCCESS) {
        reply->set_reason(context_.reason);
        v1::Conflict conflict = FindConflict(*manager_, reply->status(), change);
        if (conflict.ByteSizeLong() > 0) *reply->mutable_conflict() = std::move(conflict);
        return;
    }
    DescribeConsequences(change.key, num_events, reply);
}

// Tells what the events from `first_event` on say of other reservations than the request's own, and of jobs.
void ReservationState::DescribeConsequences(const std::string& key, size_t first_event,
                                            v1::ReservationReply* reply) const {
    for (size_t i = first_event; i < changes_.events.size(); ++i) {
        const v1::Event& event = changes_.events[i];
        if (event.kind() == v1::Event::KIND_JOB_END) {
            reply->mutable_consequences()->add_ended_job_ids(event.job_id());
        } else if (event.kind() == v1::Event::KIND_RESERVATION_REMOVED && event.reservation_key() != key) {
            reply->mutable_consequences()->add_deleted_reservation_keys(event.reservation_key());
        }
    }
}

void ReservationState::CreateReservation(const v1::CreateReservationRequest& request, v1::ReservationReply* reply) {
    if (request.has_free_nodes()) return RefuseFreeNodes(request.free_nodes(), reply);

    WantedChange change{request.key(), Sorted(request.guids()), {}};
    const ReservationInfo* const existing = manager_->GetReservationInfoByKey(request.key());
    if (existing != nullptr) {
        const vesk_reservation_info& info = existing->info;
        std::set_difference(info.guids, info.guids + info.num_guids, change.added_guids.begin(),
                            change.added_guids.end(), std::back_inserter(change.removed_guids));
    }
    const vesk_create_reservation record = ToRecord(request, change.added_guids);
    RunRequest(reply, change, [&] { manager_->CreateReservation(record, nullptr, 0); });
    if (reply->status() != v1::STATUS_SUCCESS) ++failed_requests_;
}

void ReservationState::UpdateReservation(const v1::UpdateReservationRequest& request, v1::ReservationReply* reply) {
    if (request.has_add_free_nodes()) return RefuseFreeNodes(request.add_free_nodes(), reply);

    WantedChange change{request.key(), Sorted(request.add_guids()), Sorted(request.remove_guids())};
    const vesk_update_reservation_by_delta record = ToRecord(request, change.added_guids, change.removed_guids);
    RunRequest(reply, change, [&] { manager_->UpdateReservationByDelta(record, nullptr, 0); });
    if (reply->status() != v1::STATUS_SUCCESS) ++failed_requests_;
}

void ReservationState::DeleteReservation(const v1::DeleteReservationRequest& request, v1::ReservationReply* reply) {
    const vesk_delete_reservation record = ToRecord(request);
    RunRequest(reply, {request.key(), {}, {}}, [&] { manager_->DeleteReservation(record, nullptr, 0); });
}

void ReservationState::GetReservations(const v1::GetReservationsRequest& request, v1::ReservationReply* reply) {
    if (request.key().empty() && context_.options->reservation_mode) return ListReservations(request, reply);

    const ManagerScope scope(context_);
    reply_ = reply;
    with_details_ = request.with_details();
    manager_->ReservationInfoRequest(ToRecord(request), nullptr, 0);
    if (reply->status() != v1::STATUS_SUCCESS) reply->set_reason(context_.reason);
    if (!request.with_details()) return;
    for (v1::Reservation& listed : *reply->mutable_reservations()) {
        listed.set_created_unix_millis(CreatedUnixMillis(listed.key()));
    }
}

// The manager knows no pages.
void ReservationState::ListReservations(const v1::GetReservationsRequest& request, v1::ReservationReply* reply) const {
    const auto describe = [&](const ReservationInfo& reservation, v1::Reservation* listed) {
        DescribeSummary(reservation.info, listed);
        if (!request.with_details()) return;
        DescribeDetails(reservation.info, listed);
        DescribeAccount(reservation, listed);
        listed->set_created_unix_millis(CreatedUnixMillis(listed->key()));
    };
    reply->set_status_name(v1::Status_Name(v1::STATUS_SUCCESS));
    const auto last = FillPage(manager_->reservations, request.page_token(), request.page_size(), describe,
                               reply->mutable_reservations());
    if (last) reply->set_next_page_token(*last);
}

void ReservationState::SendReservationInfoList(const dov_ep*, vesk_reservation_info_list& list, uint64_t) const {
    reply_->set_status(static_cast<v1::Status>(list.status));
    reply_->set_status_name(v1::Status_Name(reply_->status()));
    for (uint64_t i = 0; i < list.num_reservations; ++i) {
        Describe(list.reservations[i], reply_->add_reservations());
    }
}

void ReservationState::Describe(const vesk_reservation_info& entry, v1::Reservation* reservation) const {
    DescribeSummary(entry, reservation);
    if (!with_details_ || HasKeyOnly(entry)) return;
    DescribeDetails(entry, reservation);
    const auto found = manager_->reservations.find(entry.reservation_key);
    if (entry.state == VESK_STATE_NONE || found == manager_->reservations.end()) return;
    DescribeAccount(*found->second, reservation);
}

// ---- Jobs ----

void ReservationState::BeginJob(const v1::BeginJobRequest& request, v1::BeginJobReply* reply) {
    v1::Job description;
    Guids guids = Sorted(request.guids());
    guids.erase(std::unique(guids.begin(), guids.end()), guids.end());
    description.set_job_id(request.job_id());
    description.mutable_guids()->Add(guids.begin(), guids.end());
    description.set_planes(std::max(request.planes(), 1U));
    description.set_trees(request.trees());
    description.set_begun_unix_millis(NowInUnixMillis());
    description.set_start_unix_millis(request.start_unix_millis());
    description.set_reservation_key(request.reservation_key());

    const Job* const running = jobs_.Find(request.job_id());
    if (running != nullptr && running->description.start_unix_millis() < request.start_unix_millis()) {
        RemoveJob(request.job_id());
    } else if (running != nullptr) {
        return ReplyToRepeatedBegin(running->description, description, reply);
    }
    if (!context_.options->reservation_mode) {
        reply->set_result(v1::BeginJobReply::RESULT_MODE_DISABLED);
        reply->set_reason("Reservation mode not enabled");
        return;
    }
    reply->set_result(Admit(std::make_unique<Job>(std::move(description)), reply));
}

// A client that did not get the answer asks again: the job that runs already is admitted as it was.
void ReservationState::ReplyToRepeatedBegin(const v1::Job& running, const v1::Job& wanted,
                                            v1::BeginJobReply* reply) const {
    const auto refuse = [&](const char* how) {
        reply->set_result(v1::BeginJobReply::RESULT_ALREADY_RUNNING);
        reply->set_reason(absl::StrCat("Job ", running.job_id(), " ", how));
    };
    const bool is_same =
        std::equal(running.guids().begin(), running.guids().end(), wanted.guids().begin(), wanted.guids().end()) &&
        running.planes() == wanted.planes() && running.trees() == wanted.trees();
    if (!is_same) return refuse("is running with other HCAs, planes or trees");
    if (wanted.start_unix_millis() != 0 && wanted.start_unix_millis() != running.start_unix_millis()) {
        return refuse("is running, and began later");
    }
    if (!wanted.reservation_key().empty() && wanted.reservation_key() != running.reservation_key()) {
        return refuse("is running in another reservation");
    }
    reply->set_reservation_key(running.reservation_key());
    reply->set_reservation_id(running.reservation_id());
}

v1::BeginJobReply::Result ReservationState::Admit(std::unique_ptr<Job> job, v1::BeginJobReply* reply) {
    const ManagerScope scope(context_);
    VeskJob* const vesk_job = &job->vesk_job;
    ReservationInfo* const reservation = manager_->GetReservationByJob(vesk_job);
    if (reservation == nullptr) {
        reply->set_reason(context_.reason);
        *reply->mutable_conflict() = FindForeignGuid(*manager_, job->description.guids());
        return v1::BeginJobReply::RESULT_NO_RESERVATION;
    }
    v1::Job& description = job->description;
    const std::string key = reservation->info.reservation_key;
    if (!description.reservation_key().empty() && description.reservation_key() != key) {
        reply->set_reason(
            absl::StrCat("The job's HCAs are in reservation ", key, ", not in ", description.reservation_key()));
        return v1::BeginJobReply::RESULT_NO_RESERVATION;
    }
    description.set_reservation_key(key);
    description.set_reservation_id(reservation->reservation_id);
    vesk_job->ext_job_id = {description.job_id(), description.reservation_id(), description.reservation_key()};

    JobResource resource{static_cast<uint16_t>(description.planes() * description.trees())};
    if (manager_->ValidateReservationResources(reservation, resource, vesk_job) != 0) {
        reply->set_reason(context_.reason);
        return v1::BeginJobReply::RESULT_LIMIT_EXCEEDED;
    }
    reply->set_reservation_key(description.reservation_key());
    reply->set_reservation_id(description.reservation_id());
    changed_job_ids_.insert(description.job_id());
    jobs_.Insert(std::move(job));
    manager_->AddJob(reservation, vesk_job);
    return v1::BeginJobReply::RESULT_ADMITTED;
}

void ReservationState::EndJob(const v1::EndJobRequest& request, v1::EndJobReply* reply) {
    const Job* const running = jobs_.Find(request.job_id());
    if (running == nullptr) return;
    const int64_t start_unix_millis = running->description.start_unix_millis();
    if (request.start_unix_millis() != 0 && request.start_unix_millis() < start_unix_millis) return;
    reply->set_was_running(true);
    reply->set_reservation_key(running->description.reservation_key());
    RemoveJob(request.job_id());
}

// Takes a running job out of the counts.
void ReservationState::RemoveJob(uint64_t job_id) {
    const ManagerScope scope(context_);
    const std::unique_ptr<Job> job = ExtractJob(job_id);
    if (!job->vesk_job.reservation_accounted) return;
    manager_->RemoveJob(manager_->GetReservationInfoByKey(job->description.reservation_key()), &job->vesk_job);
}

void ReservationState::ListJobs(const v1::ListJobsRequest& request, v1::ListJobsReply* reply) {
    uint64_t last_listed = 0;
    if (!absl::SimpleAtoi(request.page_token(), &last_listed)) last_listed = 0;
    const auto describe = [](const Job& job, v1::Job* listed) {
        *listed = job.description;
        listed->set_accounted(job.vesk_job.reservation_accounted);
    };
    const auto fill = [&](const auto& jobs) {
        return FillPage(jobs, last_listed, request.page_size(), describe, reply->mutable_jobs());
    };
    const auto last =
        request.reservation_key().empty() ? fill(jobs_.all()) : fill(jobs_.OfReservation(request.reservation_key()));
    if (last) reply->set_next_page_token(absl::StrCat(*last));
}

// Takes a job out of the running ones. Null when there is none with this id.
std::unique_ptr<Job> ReservationState::ExtractJob(uint64_t job_id) {
    std::unique_ptr<Job> job = jobs_.Extract(job_id);
    if (job != nullptr) changed_job_ids_.insert(job_id);
    return job;
}

// Counts the reservation's jobs that wait for it, and ends those that are not its own.
void ReservationState::TakeUpJobsOf(ReservationInfo* reservation) {
    CountJobsOf(reservation);
    const OptionInfo& options = *context_.options;
    if (options.reservation_mode && !options.reservation_auto_by_pkeys) manager_->HandleAlreadyRunningJobs(reservation);
}

// Counts the jobs that run under the reservation's key and are not counted, if it owns all of their HCAs.
void ReservationState::CountJobsOf(ReservationInfo* reservation) {
    for (const auto& [job_id, job] : jobs_.OfReservation(reservation->info.reservation_key)) {
        const auto& guids = job->description.guids();
        const auto is_owned = [&](uint64_t guid) { return OwnerOf(guid) == reservation; };
        if (job->vesk_job.reservation_accounted || !std::all_of(guids.begin(), guids.end(), is_owned)) continue;
        manager_->AddJob(reservation, &job->vesk_job);
    }
}

void ReservationState::HandleJobError(VeskJob* job, vesk_error_value, vesk_error_type, bool, bool) {
    AddJobEvent(v1::Event::KIND_JOB_ERROR, *job);
}

void ReservationState::SendEndJob(dov_ep*, const VeskJob* job) {
    AddJobEvent(v1::Event::KIND_JOB_END, *job);
    ended_jobs_.push_back(ExtractJob(job->ext_job_id.job_id));
}

// No two running jobs have one id, so that the ids of reservations need not be compared.
VeskJob* ReservationState::FindJob(uint64_t job_id, uint64_t, const char* reservation_key) {
    Job* const job = jobs_.Find(job_id);
    return job != nullptr && job->description.reservation_key() == reservation_key ? &job->vesk_job : nullptr;
}

// The manager asks for jobs that it is to count.
void ReservationState::GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const {
    for (const auto& [job_id, job] : jobs_.OfReservation(reservation_key)) {
        if (!job->vesk_job.reservation_accounted) jobs.insert(&job->vesk_job);
    }
}

void ReservationState::Describe(v1::DaemonInfo* info) const {
    const OptionInfo& options = *context_.options;
    info->set_max_jobs_per_hca(options.max_jobs_per_hca);
    info->set_reservation_mode(options.reservation_mode);
    info->set_load_persistent_reservations(options.load_persistent_reservations);
    info->set_reservation_allow_guid_override(options.reservation_allow_guid_override);
    info->set_reservation_allow_ending_jobs(options.reservation_allow_ending_jobs);
    info->set_reservation_auto_by_pkeys(options.reservation_auto_by_pkeys);
    info->set_reservation_default_num_trees(options.reservation_default_num_trees);
    info->set_reservations(manager_->reservations.size());
    info->set_reserved_hcas(manager_->hca_infos.size());
    info->set_jobs(jobs_.all().size());
    info->set_failed_reservation_requests(failed_requests());
}

// ---- Options ----

void ReservationState::SetOptions(const OptionInfo& options) {
    const OptionInfo old_options = *context_.options;
    const bool caps_begin_or_end = (old_options.max_jobs_per_hca == 0) != (options.max_jobs_per_hca == 0);
    // The jobs on an HCA are counted only while there is a cap: each job leaves the counts that it came into.
    if (caps_begin_or_end) {
        const ManagerScope scope(context_);
        ForEachCountedJob([this](ReservationInfo* owner, VeskJob* job) { manager_->RemoveJob(owner, job); });
    }
    context_.options = std::make_shared<OptionInfo>(options);
    const ManagerScope scope(context_);
    if (caps_begin_or_end) {
        ForEachCountedJob([this](ReservationInfo* owner, VeskJob* job) { manager_->AddJob(owner, job); });
    }
    if (options.reservation_default_num_trees != old_options.reservation_default_num_trees) last_key_with_limit_ = "";
    if (!options.reservation_mode || old_options.reservation_mode) return;
    std::set<std::string> waiting_keys;    // of reservations whose jobs are not all counted
    for (const auto& [job_id, job] : jobs_.all()) {
        if (!job->vesk_job.reservation_accounted) waiting_keys.insert(job->description.reservation_key());
    }
    for (const std::string& key : waiting_keys) {
        ReservationInfo* const reservation = manager_->GetReservationInfoByKey(key);
        if (reservation != nullptr) TakeUpJobsOf(reservation);
    }
}

bool ReservationState::SetTreesLimits() {
    if (!last_key_with_limit_) return false;
    const ManagerScope scope(context_);
    auto next = manager_->reservations.upper_bound(*last_key_with_limit_);
    for (int i = 0; i < kMaxNewLimits && next != manager_->reservations.end(); ++i, ++next) {
        next->second->SetResourceLimitation();
    }
    if (next == manager_->reservations.end()) {
        last_key_with_limit_.reset();
    } else {
        last_key_with_limit_ = std::prev(next)->first;
    }
    return last_key_with_limit_.has_value();
}

// Calls `change` with the reservation and the job.
template <typename Change>
void ReservationState::ForEachCountedJob(Change change) {
    for (const auto& [job_id, job] : jobs_.all()) {
        if (!job->vesk_job.reservation_accounted) continue;
        change(manager_->GetReservationInfoByKey(job->description.reservation_key()), &job->vesk_job);
    }
}

// ---- Ports ----

void ReservationState::ReportPort(const v1::ReportPortRequest& request, v1::ReportPortReply* reply) {
    const ManagerScope scope(context_);
    const size_t num_events = changes_.events.size();
    const ReservationInfo* const owner_before = OwnerOf(request.guid());
    const std::string key_before = owner_before != nullptr ? owner_before->info.reservation_key : "";

    const HcaPortKey port{request.guid(), static_cast<uint8_t>(request.port_num())};
    manager_->UpdateReservationWithGuidPkeys(port, {request.pkeys().begin(), request.pkeys().end()});

    ReservationInfo* const owner = OwnerOf(request.guid());
    if (owner != nullptr) reply->set_reservation_key(owner->info.reservation_key);
    reply->set_acted(key_before != reply->reservation_key() || changes_.events.size() > num_events);
    if (!reply->acted()) return;
    // Jobs that ran before the daemon started wait for their HCAs to be reported.
    if (owner != nullptr) CountJobsOf(owner);
}

// ---- Events ----

void ReservationState::AddReservationCreatedEvent(const char* key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_CREATED, key);
    created_unix_millis_[key] = changes_.events.back().time_unix_millis();
}

void ReservationState::AddReservationUpdatedEvent(const char* key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_UPDATED, key);
}

void ReservationState::AddReservationRemovedEvent(const char* key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_REMOVED, key);
    created_unix_millis_.erase(key);
}

void ReservationState::AddReservationEvent(v1::Event::Kind kind, const std::string& key) {
    v1::Event& event = changes_.events.emplace_back();
    event.set_time_unix_millis(NowInUnixMillis());
    event.set_kind(kind);
    event.set_reservation_key(key);
}

// The record that the manager sent before it ended the job says why.
void ReservationState::AddJobEvent(v1::Event::Kind kind, const VeskJob& job) {
    v1::Event& event = changes_.events.emplace_back();
    event.set_time_unix_millis(NowInUnixMillis());
    event.set_kind(kind);
    event.set_reservation_key(job.ext_job_id.reservation_key);
    event.set_job_id(job.ext_job_id.job_id);
    event.set_start_unix_millis(jobs_.Find(event.job_id())->description.start_unix_millis());
    event.set_reason(context_.reason);
}

int64_t ReservationState::CreatedUnixMillis(const std::string& key) const {
    const auto found = created_unix_millis_.find(key);
    return found != created_unix_millis_.end() ? found->second : 0;
}

ReservationInfo* ReservationState::OwnerOf(uint64_t guid) const {
    const auto found = manager_->hca_infos.find(guid);
    return found != manager_->hca_infos.end() ? found->second.reservation : nullptr;
}

// ---- Storing and restoring ----

StateChanges ReservationState::TakeChanges() {
    StateChanges changes = std::exchange(changes_, {});
    for (auto& [key, reservation] : changes.reservations) {
        if (reservation) reservation->created_unix_millis = CreatedUnixMillis(key);
    }
    for (const uint64_t job_id : changed_job_ids_) {
        const Job* const job = jobs_.Find(job_id);
        changes.jobs[job_id] = job != nullptr ? std::optional(job->description.SerializeAsString()) : std::nullopt;
    }
    changed_job_ids_.clear();
    ended_jobs_.clear();
    return changes;
}

void ReservationState::AddJob(uint64_t job_id, const std::string& packed) {
    std::unique_ptr<Job> job = UnpackJob(packed);
    if (job == nullptr) throw std::runtime_error("stored job " + std::to_string(job_id) + " is damaged");
    jobs_.Insert(std::move(job));
}

void ReservationState::Restore(const std::string& key, const StoredReservation& stored) {
    Enter(Unpack(key, stored.packed), stored.id);
    created_unix_millis_[key] = stored.created_unix_millis;
}

void ReservationState::Adopt(const std::string& key, const std::string& packed, uint64_t id, v1::Event::Kind kind) {
    AddReservationEvent(kind, key);
    Enter(Unpack(key, packed), id);
    created_unix_millis_[key] = NowInUnixMillis();
    changes_.reservations[key] = StoredReservation{packed, manager_->GetReservationInfoByKey(key)->reservation_id, 0};
}

void ReservationState::Drop(const std::string& key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_REMOVED, key);
    changes_.reservations[key] = std::nullopt;
}

void ReservationState::Enter(std::unique_ptr<ReservationInfo> reservation, uint64_t id) {
    const ManagerScope scope(context_);
    ReservationInfo* const entered = reservation.release();
    entered->SetResourceLimitation();
    manager_->AddReservationToDB(entered);
    if (id != 0) manager_->SetReservationId(*entered, id);
    manager_->CreateReservationId(*entered);
    TakeUpJobsOf(entered);
}

}    // namespace reservationd
