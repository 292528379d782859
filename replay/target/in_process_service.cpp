#include "replay/target/in_process_service.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <numeric>
#include <utility>

#include "host/log.h"
#include "replay/file.h"

namespace {

std::unique_ptr<VeskJob> MakeJob(const JobRequest& request) {
    auto job = std::make_unique<VeskJob>();
    job->ext_job_id.job_id = request.job_id;
    job->ext_job_id.reservation_key = request.reservation_key;
    VeskTree tree;
    for (const uint64_t guid : request.guids) tree.ports.insert(job->AddPort(guid, 1));
    job->plane_trees.assign(request.planes, std::vector<VeskTree>(request.trees, tree));
    return job;
}

uint32_t Count(const std::vector<uint64_t>& guids) { return static_cast<uint32_t>(guids.size()); }

}    // namespace

std::vector<std::string> ReservationFilesIn(const std::string& dir) {
    std::vector<std::string> names;
    try {
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            const std::string name = entry.path().filename();
            if (name.starts_with("reservation.")) names.push_back(name);
        }
    } catch (const std::filesystem::filesystem_error& error) {
        throw InputError(dir + ": cannot be read: " + error.code().message());
    }
    return names;
}

InProcessService::InProcessService(OptionInfo options, int log_level)
    : options_(std::move(options)),
      manager_(&jobs_),
      previous_options_(std::exchange(g_option_info, &options_)),
      previous_fabric_(std::exchange(g_fabric, &fabric_)),
      previous_event_manager_(std::exchange(g_event_manager, &recorder_)) {
    log_set_level(log_level);
    log_set_sink([this](const LogRecord& record) { recorder_.AddRecord(record); });
}

InProcessService::~InProcessService() {
    log_set_sink({});
    log_set_level(3);
    g_event_manager = previous_event_manager_;
    g_fabric = previous_fabric_;
    g_option_info = previous_options_;
}

std::vector<uint64_t> InProcessService::StartUp(const std::vector<StoredJob>& running_jobs) {
    for (const StoredJob& stored : running_jobs) {
        std::unique_ptr<VeskJob> job = MakeJob(stored.request);
        job->ext_job_id.reservation_id = stored.reservation_id;
        jobs_.Add(std::move(job));
    }

    manager_.ReadPersistentReservationInfoFiles();
    if (options_.reservation_auto_by_pkeys) {
        manager_.DeleteAllPersistentReservationFiles();
        for (const StoredJob& stored : running_jobs) {
            for (const uint64_t guid : stored.request.guids) ReportPkeys(guid, stored.pkeys);
        }
        manager_.HandleAlreadyRunningJobsForAllReservations();
    }
    recorder_.EndStartUp();

    std::vector<uint64_t> not_taken_back;
    for (const auto& [id, job] : jobs_.jobs()) {
        if (!job->reservation_accounted) not_taken_back.push_back(id);
    }
    return not_taken_back;
}

uint32_t InProcessService::CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                                             uint32_t num_trees) {
    vesk_create_reservation request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    request.pkey = pkey;
    request.num_guids = Count(guids);
    request.guids = guids.data();
    std::fill(std::begin(request.limits), std::end(request.limits), VESK_LIMIT_NOT_GIVEN);
    request.limits[VESK_LIMIT_NUM_TREES] = num_trees;
    manager_.CreateReservation(request, nullptr, ++transaction_id_);
    return StatusOfRequest();
}

uint32_t InProcessService::UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                                             std::vector<uint64_t> removed) {
    vesk_update_reservation_by_delta request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    request.num_guids_to_add = Count(added);
    request.num_guids_to_remove = Count(removed);
    request.guids_to_add = added.data();
    request.guids_to_remove = removed.data();
    manager_.UpdateReservationByDelta(request, nullptr, ++transaction_id_);
    return StatusOfRequest();
}

uint32_t InProcessService::DeleteReservation(const std::string& key) {
    vesk_delete_reservation request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    manager_.DeleteReservation(request, nullptr, ++transaction_id_);
    return StatusOfRequest();
}

JobVerdict InProcessService::BeginJob(const JobRequest& request) {
    std::unique_ptr<VeskJob> job = MakeJob(request);
    ReservationInfo* reservation = manager_.GetReservationByJob(job.get());
    if (reservation == nullptr || request.reservation_key != reservation->info.reservation_key) {
        return {.status = VESK_STATUS_NOT_FOUND};
    }
    JobResource resource{.requested_trees = static_cast<uint16_t>(request.planes * request.trees)};
    if (manager_.ValidateReservationResources(reservation, resource, job.get()) != 0)
        return {.status = kLimitsExceeded};

    job->ext_job_id.reservation_id = reservation->reservation_id;
    manager_.AddJob(reservation, job.get());
    jobs_.Add(std::move(job));
    return {.reservation_id = reservation->reservation_id};
}

uint32_t InProcessService::EndJob(uint64_t job_id) {
    const VeskJob* job = jobs_.Find(job_id);
    if (job == nullptr) return VESK_STATUS_NOT_FOUND;
    ReservationInfo* reservation = manager_.GetReservationInfoByKey(job->ext_job_id.reservation_key);
    const bool is_counted = job->reservation_accounted && reservation != nullptr;
    if (is_counted) {
        manager_.RemoveJob(reservation, job);
        if (reservation->jobs.empty()) leaked_trees_ += reservation->used_trees;
    }
    jobs_.Erase(job_id);
    return is_counted ? VESK_STATUS_SUCCESS : VESK_STATUS_NOT_FOUND;
}

uint32_t InProcessService::ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) {
    manager_.UpdateReservationWithGuidPkeys({guid, 1}, pkeys);
    return VESK_STATUS_SUCCESS;
}

Recorded InProcessService::recorded() const {
    Recorded recorded = recorder_.replay;
    recorded.failed_requests = fabric_.failed_reservation_requests;
    return recorded;
}

void InProcessService::SetRecorded(const Recorded& recorded) {
    recorder_.replay = recorded;
    fabric_.failed_reservation_requests = recorded.failed_requests;
}

std::vector<std::string> InProcessService::FailedChecks() const {
    std::vector<std::string> failed;
    uint64_t trees = leaked_trees_;
    for (const auto& [key, reservation] : manager_.reservations) {
        failed.push_back("reservation " + key + " is left, with " + std::to_string(reservation->info.num_guids) +
                         " HCAs and " + std::to_string(reservation->jobs.size()) + " jobs");
        trees += reservation->used_trees;
    }
    ExpectNone(failed, trees, "trees are still counted");
    ExpectNone(failed, manager_.hca_infos.size(), "HCAs are still reserved");
    ExpectNone(failed, manager_.reservation_keys_by_id.size(), "reservation ids are still in use");
    ExpectNone(failed, jobs_.jobs().size(), "jobs still run");
    ExpectNone(failed, jobs_.num_ended(), "jobs were ended by the manager");
    ExpectNone(failed, transaction_id_ - jobs_.num_replies(), "requests more than replies");
    for (const std::string& name : ReservationFilesIn(options_.persistent_dir)) {
        failed.push_back("file " + options_.persistent_dir + "/" + name + " is left");
    }
    ExpectNone(failed, recorder_.start_up.records[0] + recorder_.replay.records[0], "level-1 records");
    return failed;
}
