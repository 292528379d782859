#include "daemon/state/reservation_state.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "daemon/state/conflict.h"
#include "host/dov_msg.h"

namespace reservationd {

namespace {

using Guids = std::vector<uint64_t>;

constexpr uint32_t kMaxCount = 255;    // of planes, and of trees in a plane
constexpr int kReasonLevel = 3;    // of the manager's records that say why it refuses something or ends a job

int64_t NowInUnixMillis() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

Guids Sorted(const google::protobuf::RepeatedField<uint64_t>& guids) {
    Guids sorted(guids.begin(), guids.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

// ---- Records of the manager ----

struct MessageReleaser {
    void operator()(vesk_dov_msg* msg) const { dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg); }
};
using MessagePointer = std::unique_ptr<vesk_dov_msg, MessageReleaser>;

const vesk_reservation_info* RecordIn(const MessagePointer& msg) {
    return msg != nullptr ? static_cast<const vesk_reservation_info*>(msg->data) : nullptr;
}

std::string Pack(const vesk_reservation_info& info) {
    vesk_dov_msg msg{};
    msg.data = const_cast<vesk_reservation_info*>(&info);
    char* buffer = nullptr;
    uint64_t length = 0;
    if (dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, &msg, &buffer, &length) != 0) throw std::bad_alloc();
    const std::unique_ptr<char, decltype(&std::free)> owner(buffer, &std::free);
    return std::string(buffer, length);
}

std::unique_ptr<ReservationInfo> Unpack(const std::string& record) {
    vesk_dov_msg* msg = nullptr;
    dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, record.c_str(), &msg);
    const MessagePointer owner(msg);
    if (RecordIn(owner) == nullptr) throw std::runtime_error("a stored reservation is damaged: " + record);
    return std::make_unique<ReservationInfo>(RecordIn(owner));
}

// ---- Limits ----

void SetLimits(const v1::Limits& limits, uint32_t (&values)[VESK_NUM_LIMITS]) {
    const auto value = [](bool is_given, uint32_t limit) { return is_given ? limit : VESK_LIMIT_NOT_GIVEN; };
    const uint32_t all[VESK_NUM_LIMITS] = {
        value(limits.has_limit0(), limits.limit0()), value(limits.has_limit1(), limits.limit1()),
        value(limits.has_limit2(), limits.limit2()), value(limits.has_num_trees(), limits.num_trees()),
        value(limits.has_limit4(), limits.limit4()), value(limits.has_limit5(), limits.limit5()),
        value(limits.has_limit6(), limits.limit6()),
    };
    std::copy(std::begin(all), std::end(all), std::begin(values));
}

void DescribeLimits(const uint32_t (&values)[VESK_NUM_LIMITS], v1::Limits* limits) {
    constexpr void (v1::Limits::*kSet[VESK_NUM_LIMITS])(uint32_t) = {
        &v1::Limits::set_limit0, &v1::Limits::set_limit1, &v1::Limits::set_limit2, &v1::Limits::set_num_trees,
        &v1::Limits::set_limit4, &v1::Limits::set_limit5, &v1::Limits::set_limit6,
    };
    for (size_t i = 0; i < VESK_NUM_LIMITS; ++i) {
        if (values[i] != VESK_LIMIT_NOT_GIVEN) (limits->*kSet[i])(values[i]);
    }
}

}    // namespace

// ---- In charge ----

// Puts the manager's globals into a state's hands while an operation of the state runs.
class ReservationState::ManagerScope {
public:
    explicit ManagerScope(ReservationState& state)
        : state_(state),
          options_(std::exchange(g_option_info, &state.options_)),
          fabric_(std::exchange(g_fabric, &state.fabric_)),
          event_manager_(std::exchange(g_event_manager, static_cast<EventManager*>(&state))) {
        state_.last_record_.clear();
        log_set_sink([this](const LogRecord& record) { Receive(record); });
    }
    ManagerScope(const ManagerScope&) = delete;
    ManagerScope& operator=(const ManagerScope&) = delete;
    ~ManagerScope() {
        log_set_sink({});
        g_event_manager = event_manager_;
        g_fabric = fabric_;
        g_option_info = options_;
        state_.ended_jobs_.clear();
    }

private:
    void Receive(const LogRecord& record) {
        if (record.level <= kReasonLevel) state_.last_record_ = record.message;
        if (state_.log_) state_.log_(record);
    }

    ReservationState& state_;
    OptionInfo* const options_;
    Fabric* const fabric_;
    EventManager* const event_manager_;
};

struct ReservationState::Job {
    v1::Job description;    // `accounted` is the other one's
    VeskJob vesk_job;

    // The GUIDs of the description are ascending and distinct.
    explicit Job(v1::Job job) : description(std::move(job)) {
        vesk_job.ext_job_id = {description.job_id(), description.reservation_id(), description.reservation_key()};
        vesk_job.plane_trees.resize(description.planes());
        std::vector<VeskTree>& trees = vesk_job.plane_trees.front();
        trees.resize(description.trees());
        // Of all trees, the first one speaks for the rest, which span the same HCAs: they only count.
        for (const uint64_t guid : description.guids()) {
            const PortData* const port = vesk_job.AddPort(guid, 1);
            if (!trees.empty()) trees.front().ports.insert(trees.front().ports.end(), port);
        }
    }
};

ReservationState::ReservationState(const OptionInfo& options, LogFunction log, uint64_t failed_requests)
    : options_(options), fabric_{failed_requests}, log_(std::move(log)), manager_(this) {}

ReservationState::~ReservationState() = default;

// ---- Requests about reservations ----

// Runs an operation of the manager that sends `reply`, and completes it. A refusal changes nothing, so that its reason
// can be looked up afterwards.
template <typename Operation>
void ReservationState::Answer(v1::ReservationReply* reply, const WantedChange& change, Operation operation) {
    const ManagerScope scope(*this);
    const size_t num_events = changes_.events.size();
    reply_ = reply;
    operation();
    if (reply->status() != v1::STATUS_SUCCESS) {
        reply->set_reason(last_record_);
        const v1::Conflict conflict = FindConflict(manager_, reply->status(), change);
        if (conflict.ByteSizeLong() > 0) *reply->mutable_conflict() = conflict;
        return;
    }
    if (manager_.reservations.contains(change.key)) changes_.keys.insert(change.key);
    for (size_t i = num_events; i < changes_.events.size(); ++i) {
        const v1::Event& event = changes_.events[i];
        if (event.kind() == v1::Event::KIND_JOB_END) reply->mutable_consequences()->add_ended_job_ids(event.job_id());
        if (event.kind() != v1::Event::KIND_RESERVATION_REMOVED || event.reservation_key() == change.key) continue;
        reply->mutable_consequences()->add_deleted_reservation_keys(event.reservation_key());
    }
}

void ReservationState::CreateReservation(const v1::CreateReservationRequest& request, v1::ReservationReply* reply) {
    if (request.dry_run()) return DryRun(&ReservationState::CreateReservation, request, request.guids(), reply);

    WantedChange change{request.key(), Sorted(request.guids()), {}};
    const ReservationInfo* const existing = manager_.GetReservationInfoByKey(request.key());
    if (existing != nullptr) {
        const vesk_reservation_info& info = existing->info;
        std::set_difference(info.guids, info.guids + info.num_guids, change.added_guids.begin(),
                            change.added_guids.end(), std::back_inserter(change.removed_guids));
    }
    vesk_create_reservation record{};
    vesk_copy_key(record.reservation_key, request.key().c_str());
    record.pkey = static_cast<uint16_t>(request.pkey());
    record.num_guids = static_cast<uint32_t>(change.added_guids.size());
    record.guids = change.added_guids.data();
    SetLimits(request.limits(), record.limits);
    record.auto_created = request.auto_created() ? 1 : 0;
    Answer(reply, change, [&] { manager_.CreateReservation(record, nullptr, 0); });
}

void ReservationState::UpdateReservation(const v1::UpdateReservationRequest& request, v1::ReservationReply* reply) {
    if (request.dry_run()) return DryRun(&ReservationState::UpdateReservation, request, request.add_guids(), reply);

    WantedChange change{request.key(), Sorted(request.add_guids()), Sorted(request.remove_guids())};
    vesk_update_reservation_by_delta record{};
    vesk_copy_key(record.reservation_key, request.key().c_str());
    record.num_guids_to_add = static_cast<uint32_t>(change.added_guids.size());
    record.num_guids_to_remove = static_cast<uint32_t>(change.removed_guids.size());
    record.guids_to_add = change.added_guids.data();
    record.guids_to_remove = change.removed_guids.data();
    Answer(reply, change, [&] { manager_.UpdateReservationByDelta(record, nullptr, 0); });
}

void ReservationState::DeleteReservation(const v1::DeleteReservationRequest& request, v1::ReservationReply* reply) {
    if (request.dry_run()) return DryRun(&ReservationState::DeleteReservation, request, {}, reply);

    vesk_delete_reservation record{};
    vesk_copy_key(record.reservation_key, request.key().c_str());
    Answer(reply, {request.key(), {}, {}}, [&] { manager_.DeleteReservation(record, nullptr, 0); });
}

void ReservationState::GetReservations(const v1::GetReservationsRequest& request, v1::ReservationReply* reply) {
    vesk_reservation_info_request record{};
    vesk_copy_key(record.reservation_key, request.key().c_str());
    record.with_details = request.with_details() ? 1 : 0;
    const ManagerScope scope(*this);
    reply_ = reply;
    with_details_ = request.with_details();
    manager_.ReservationInfoRequest(record, nullptr, 0);
    with_details_ = true;
    if (reply->status() != v1::STATUS_SUCCESS) reply->set_reason(last_record_);
}

// Carries the request out in a copy of everything that it concerns: the same manager decides, and nothing is changed.
template <typename RequestMessage>
void ReservationState::DryRun(void (ReservationState::*operation)(const RequestMessage&, v1::ReservationReply*),
                              const RequestMessage& request, const google::protobuf::RepeatedField<uint64_t>& guids,
                              v1::ReservationReply* reply) {
    std::map<std::string, const ReservationInfo*> concerned = {
        {request.key(), manager_.GetReservationInfoByKey(request.key())}};
    for (const uint64_t guid : guids) {
        const ReservationInfo* const owner = OwnerOf(guid);
        if (owner != nullptr) concerned.emplace(owner->info.reservation_key, owner);
    }

    OptionInfo options = options_;
    options.persistent_dir = "/dev/null";    // no file can be written in there
    ReservationState copy(options, {});
    for (const auto& [key, info] : concerned) {
        const auto jobs = jobs_by_key_.find(key);
        if (jobs != jobs_by_key_.end()) {
            for (const auto& [job_id, job] : jobs->second) copy.InsertJob(std::make_unique<Job>(job->description));
        }
        if (info != nullptr) copy.Restore({Pack(info->info), info->reservation_id});
    }
    RequestMessage real_request = request;
    real_request.set_dry_run(false);
    (copy.*operation)(real_request, reply);
}

void ReservationState::SendReservationInfoList(const dov_ep*, vesk_reservation_info_list& list, uint64_t) const {
    reply_->set_status(static_cast<v1::Status>(list.status));
    reply_->set_status_name(v1::Status_Name(reply_->status()));
    for (uint64_t i = 0; i < list.num_reservations; ++i) {
        Describe(list.reservations[i], reply_->add_reservations());
    }
}

// The entry of a request that was refused before a reservation was found has zeros where it has nothing to say.
void ReservationState::Describe(const vesk_reservation_info& entry, v1::Reservation* reservation) const {
    reservation->set_key(entry.reservation_key);
    reservation->set_pkey(entry.pkey);
    reservation->set_state(entry.state);
    const bool is_empty = entry.guids == nullptr && std::all_of(std::begin(entry.limits), std::end(entry.limits),
                                                                [](uint32_t limit) { return limit == 0; });
    if (!with_details_ || (entry.state == VESK_STATE_NONE && is_empty)) return;
    reservation->mutable_guids()->Add(entry.guids, entry.guids + entry.num_guids);
    DescribeLimits(entry.limits, reservation->mutable_limits());
    reservation->set_auto_created(entry.auto_created != 0);
    const auto found = manager_.reservations.find(entry.reservation_key);
    if (entry.state == VESK_STATE_NONE || found == manager_.reservations.end()) return;
    const ReservationInfo& info = *found->second;
    reservation->set_id(info.reservation_id);
    reservation->set_max_trees(info.max_trees);
    reservation->set_used_trees(info.used_trees);
    for (const auto& [job_id, job] : info.jobs) reservation->add_job_ids(job_id);
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

    const auto running = jobs_.find(request.job_id());
    if (running != jobs_.end()) return AnswerAgain(running->second->description, description, reply);
    if (!options_.reservation_mode) {
        reply->set_result(v1::BeginJobReply::RESULT_MODE_DISABLED);
        reply->set_reason("Reservation mode not enabled");
        return;
    }
    reply->set_result(Admit(std::make_unique<Job>(std::move(description)), reply));
}

// The answer for a job that runs already.
void ReservationState::AnswerAgain(const v1::Job& running, const v1::Job& wanted, v1::BeginJobReply* reply) const {
    const bool is_same =
        std::equal(running.guids().begin(), running.guids().end(), wanted.guids().begin(), wanted.guids().end()) &&
        running.planes() == wanted.planes() && running.trees() == wanted.trees();
    if (!is_same) {
        reply->set_result(v1::BeginJobReply::RESULT_ALREADY_RUNNING);
        reply->set_reason("Job " + std::to_string(running.job_id()) + " is running with other HCAs, planes or trees");
        return;
    }
    reply->set_reservation_key(running.reservation_key());
    reply->set_reservation_id(running.reservation_id());
}

v1::BeginJobReply::Result ReservationState::Admit(std::unique_ptr<Job> job, v1::BeginJobReply* reply) {
    const ManagerScope scope(*this);
    VeskJob* const vesk_job = &job->vesk_job;
    ReservationInfo* const reservation = manager_.GetReservationByJob(vesk_job);
    if (reservation == nullptr) {
        reply->set_reason(last_record_);
        return v1::BeginJobReply::RESULT_NO_RESERVATION;
    }
    v1::Job& description = job->description;
    description.set_reservation_key(reservation->info.reservation_key);
    description.set_reservation_id(reservation->reservation_id);
    vesk_job->ext_job_id = {description.job_id(), description.reservation_id(), description.reservation_key()};

    JobResource resource{static_cast<uint16_t>(description.planes() * description.trees())};
    if (manager_.ValidateReservationResources(reservation, resource, vesk_job) != 0) {
        reply->set_reason(last_record_);
        return v1::BeginJobReply::RESULT_LIMIT_EXCEEDED;
    }
    reply->set_reservation_key(description.reservation_key());
    reply->set_reservation_id(description.reservation_id());
    changes_.job_ids.insert(description.job_id());
    InsertJob(std::move(job));
    manager_.AddJob(reservation, vesk_job);
    return v1::BeginJobReply::RESULT_ADMITTED;
}

void ReservationState::EndJob(const v1::EndJobRequest& request, v1::EndJobReply* reply) {
    const ManagerScope scope(*this);
    const std::unique_ptr<Job> job = ExtractJob(request.job_id());
    if (job == nullptr) return;
    reply->set_was_running(true);
    if (!job->vesk_job.reservation_accounted) return;
    manager_.RemoveJob(manager_.GetReservationInfoByKey(job->description.reservation_key()), &job->vesk_job);
}

void ReservationState::ListJobs(const v1::ListJobsRequest& request, v1::ListJobsReply* reply) {
    const auto add = [reply](const Job& job) {
        v1::Job* const listed = reply->add_jobs();
        *listed = job.description;
        listed->set_accounted(job.vesk_job.reservation_accounted);
    };
    if (request.reservation_key().empty()) {
        for (const auto& [job_id, job] : jobs_) add(*job);
        return;
    }
    const auto jobs = jobs_by_key_.find(request.reservation_key());
    if (jobs == jobs_by_key_.end()) return;
    for (const auto& [job_id, job] : jobs->second) add(*job);
}

void ReservationState::InsertJob(std::unique_ptr<Job> job) {
    const v1::Job& description = job->description;
    jobs_by_key_[description.reservation_key()].emplace(description.job_id(), job.get());
    jobs_.emplace(description.job_id(), std::move(job));
}

// Takes a job out of the running ones. Null when there is none with this id.
std::unique_ptr<ReservationState::Job> ReservationState::ExtractJob(uint64_t job_id) {
    const auto node = jobs_.extract(job_id);
    if (node.empty()) return nullptr;
    const auto jobs = jobs_by_key_.find(node.mapped()->description.reservation_key());
    jobs->second.erase(job_id);
    if (jobs->second.empty()) jobs_by_key_.erase(jobs);
    changes_.job_ids.insert(job_id);
    return std::move(node.mapped());
}

// Counts the jobs that run under the reservation's key and are not counted, if it owns all of their HCAs.
void ReservationState::CountJobsOf(ReservationInfo* reservation) {
    const auto jobs = jobs_by_key_.find(reservation->info.reservation_key);
    if (jobs == jobs_by_key_.end()) return;
    for (const auto& [job_id, job] : jobs->second) {
        const auto& guids = job->description.guids();
        const auto is_owned = [&](uint64_t guid) { return OwnerOf(guid) == reservation; };
        if (job->vesk_job.reservation_accounted || !std::all_of(guids.begin(), guids.end(), is_owned)) continue;
        manager_.AddJob(reservation, &job->vesk_job);
    }
}

void ReservationState::HandleJobError(VeskJob* job, vesk_error_value, vesk_error_type, bool, bool) {
    AddJobEvent(v1::Event::KIND_JOB_ERROR, *job);
}

// The manager may still look at the job until its operation is over.
void ReservationState::SendEndJob(dov_ep*, const VeskJob* job) {
    AddJobEvent(v1::Event::KIND_JOB_END, *job);
    ended_jobs_.push_back(ExtractJob(job->ext_job_id.job_id));
}

// No two running jobs have one id, so that the ids of reservations need not be compared.
VeskJob* ReservationState::FindJob(uint64_t job_id, uint64_t, const char* reservation_key) {
    const auto found = jobs_.find(job_id);
    if (found == jobs_.end() || found->second->description.reservation_key() != reservation_key) return nullptr;
    return &found->second->vesk_job;
}

void ReservationState::GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const {
    const auto found = jobs_by_key_.find(reservation_key);
    if (found == jobs_by_key_.end()) return;
    for (const auto& [job_id, job] : found->second) jobs.insert(&job->vesk_job);
}

void ReservationState::Describe(v1::DaemonInfo* info) const {
    info->set_max_jobs_per_hca(options_.max_jobs_per_hca);
    info->set_reservation_mode(options_.reservation_mode);
    info->set_load_persistent_reservations(options_.load_persistent_reservations);
    info->set_reservation_allow_guid_override(options_.reservation_allow_guid_override);
    info->set_reservation_allow_ending_jobs(options_.reservation_allow_ending_jobs);
    info->set_reservation_auto_by_pkeys(options_.reservation_auto_by_pkeys);
    info->set_reservation_default_num_trees(options_.reservation_default_num_trees);
    info->set_reservations(manager_.reservations.size());
    info->set_reserved_hcas(manager_.hca_infos.size());
    info->set_jobs(jobs_.size());
    info->set_failed_reservation_requests(failed_requests());
}

// ---- Ports ----

void ReservationState::ReportPort(const v1::ReportPortRequest& request, v1::ReportPortReply* reply) {
    const ManagerScope scope(*this);
    const size_t num_events = changes_.events.size();
    const ReservationInfo* const owner_before = OwnerOf(request.guid());
    const std::string key_before = owner_before != nullptr ? owner_before->info.reservation_key : "";

    const HcaPortKey port{request.guid(), static_cast<uint8_t>(request.port_num())};
    manager_.UpdateReservationWithGuidPkeys(port, {request.pkeys().begin(), request.pkeys().end()});

    ReservationInfo* const owner = OwnerOf(request.guid());
    if (owner != nullptr) reply->set_reservation_key(owner->info.reservation_key);
    reply->set_acted(key_before != reply->reservation_key() || changes_.events.size() > num_events);
    if (!reply->acted()) return;
    if (!key_before.empty()) changes_.keys.insert(key_before);
    if (owner == nullptr) return;
    changes_.keys.insert(reply->reservation_key());
    // Jobs that ran before the daemon started wait for their HCAs to be reported.
    CountJobsOf(owner);
}

// ---- Events ----

void ReservationState::AddReservationCreatedEvent(const char* key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_CREATED, key);
}

void ReservationState::AddReservationUpdatedEvent(const char* key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_UPDATED, key);
}

void ReservationState::AddReservationRemovedEvent(const char* key) {
    AddReservationEvent(v1::Event::KIND_RESERVATION_REMOVED, key);
}

void ReservationState::AddReservationEvent(v1::Event::Kind kind, const std::string& key) {
    v1::Event& event = changes_.events.emplace_back();
    event.set_time_unix_millis(NowInUnixMillis());
    event.set_kind(kind);
    event.set_reservation_key(key);
    changes_.keys.insert(key);
}

// The record that the manager sent before it ended the job says why.
void ReservationState::AddJobEvent(v1::Event::Kind kind, const VeskJob& job) {
    v1::Event& event = changes_.events.emplace_back();
    event.set_time_unix_millis(NowInUnixMillis());
    event.set_kind(kind);
    event.set_reservation_key(job.ext_job_id.reservation_key);
    event.set_job_id(job.ext_job_id.job_id);
    event.set_reason(last_record_);
}

ReservationInfo* ReservationState::OwnerOf(uint64_t guid) const {
    const auto found = manager_.hca_infos.find(guid);
    return found != manager_.hca_infos.end() ? found->second.reservation : nullptr;
}

// ---- Storing and restoring ----

StateChanges ReservationState::TakeChanges() { return std::exchange(changes_, {}); }

std::optional<StoredReservation> ReservationState::Packed(const std::string& key) const {
    const auto found = manager_.reservations.find(key);
    if (found == manager_.reservations.end()) return std::nullopt;
    return StoredReservation{Pack(found->second->info), found->second->reservation_id};
}

std::optional<std::string> ReservationState::PackedJob(uint64_t job_id) const {
    const auto found = jobs_.find(job_id);
    if (found == jobs_.end()) return std::nullopt;
    return found->second->description.SerializeAsString();
}

void ReservationState::AddJob(const std::string& packed) {
    v1::Job description;
    if (!description.ParseFromString(packed) || description.planes() - 1 >= kMaxCount ||
        description.trees() > kMaxCount) {
        throw std::runtime_error("stored job " + std::to_string(description.job_id()) + " is damaged");
    }
    InsertJob(std::make_unique<Job>(std::move(description)));
}

void ReservationState::Restore(const StoredReservation& stored) {
    const ManagerScope scope(*this);
    ReservationInfo* const info = Unpack(stored.record).release();
    info->SetResourceLimitation();
    manager_.AddReservationToDB(info);
    manager_.SetReservationId(*info, stored.id);
    CountJobsOf(info);
}

void ReservationState::Load(const std::string& staging_dir, const std::map<std::string, StoredReservation>& stored) {
    const ManagerScope scope(*this);
    manager_.ReadPersistentReservationInfoFiles();
    manager_.DeleteAllPersistentReservationFiles();
    options_.persistent_dir = staging_dir;
    for (const auto& [key, reservation] : stored) {
        if (!LoadsFiles() || manager_.reservations.contains(key)) continue;
        manager_.InternalCreateNewReservation(Unpack(reservation.record).release());
    }
    AddDifferencesTo(stored);
}

// Adds the events by which the reservations have become other than `stored`.
void ReservationState::AddDifferencesTo(const std::map<std::string, StoredReservation>& stored) {
    for (const auto& [key, reservation] : stored) {
        if (!manager_.reservations.contains(key)) AddReservationEvent(v1::Event::KIND_RESERVATION_REMOVED, key);
    }
    for (const auto& [key, info] : manager_.reservations) {
        const auto before = stored.find(key);
        if (before == stored.end()) {
            AddReservationEvent(v1::Event::KIND_RESERVATION_CREATED, key);
        } else if (before->second.record != Pack(info->info)) {
            AddReservationEvent(v1::Event::KIND_RESERVATION_UPDATED, key);
        } else if (before->second.id != info->reservation_id) {
            changes_.keys.insert(key);
        }
    }
}

bool ReservationState::LoadsFiles() const {
    return options_.load_persistent_reservations && !(options_.reservation_mode && options_.reservation_auto_by_pkeys);
}

std::optional<std::string> ReservationState::KeyInFile(const std::string& path) {
    const ManagerScope scope(*this);
    vesk_dov_msg* msg = nullptr;
    if (manager_.BuildDataFromReservationFile(path.c_str(), msg) != 0) return std::nullopt;
    const MessagePointer owner(msg);
    return RecordIn(owner) != nullptr ? std::optional<std::string>(RecordIn(owner)->reservation_key) : std::nullopt;
}

}    // namespace reservationd
