#include "replay/target/in_process_target.h"

#include <absl/strings/str_cat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <utility>

#include "host/log.h"
#include "replay/input_error.h"
#include "util/limits.h"

namespace replay {

namespace {

constexpr int kDefaultLogLevel = 3;

std::unique_ptr<VeskJob> MakeJob(const JobRequest& request) {
    auto job = std::make_unique<VeskJob>();
    job->ext_job_id.job_id = request.job_id;
    job->ext_job_id.reservation_key = request.reservation_key;
    VeskTree tree;
    for (const uint64_t guid : request.guids) tree.ports.insert(job->AddPort(guid, 1));
    job->plane_trees.assign(request.planes, std::vector<VeskTree>(request.trees, tree));
    return job;
}

// A request with this key, and nothing else.
template <typename Request>
Request RequestFor(const std::string& key) {
    Request request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    return request;
}

}    // namespace

InProcessTarget::InProcessTarget(OptionInfo options, int log_level)
    : options_(std::move(options)),
      manager_(&jobs_),
      previous_options_(std::exchange(g_option_info, &options_)),
      previous_fabric_(std::exchange(g_fabric, &fabric_)),
      previous_event_manager_(std::exchange(g_event_manager, &observer_)) {
    log_set_level(log_level);
    log_set_sink([this](const LogRecord& record) { observer_.CountLogRecord(record); });
}

InProcessTarget::~InProcessTarget() {
    log_set_sink({});
    log_set_level(kDefaultLogLevel);
    g_event_manager = previous_event_manager_;
    g_fabric = previous_fabric_;
    g_option_info = previous_options_;
}

std::vector<uint64_t> InProcessTarget::StartUp(const std::vector<StoredJob>& running_jobs) {
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
    observer_.EndStartUp();

    std::vector<uint64_t> not_counted;
    for (const auto& [id, job] : jobs_.jobs()) {
        if (!job->reservation_accounted) not_counted.push_back(id);
    }
    return not_counted;
}

uint32_t InProcessTarget::CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                                            uint32_t num_trees) {
    auto request = RequestFor<vesk_create_reservation>(key);
    request.pkey = pkey;
    request.num_guids = static_cast<uint32_t>(guids.size());
    request.guids = guids.data();
    std::fill(std::begin(request.limits), std::end(request.limits), VESK_LIMIT_NOT_GIVEN);
    request.limits[VESK_LIMIT_NUM_TREES] = num_trees;
    manager_.CreateReservation(request, nullptr, ++transaction_id_);
    return StatusOfLastRequest();
}

uint32_t InProcessTarget::UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                                            std::vector<uint64_t> removed) {
    auto request = RequestFor<vesk_update_reservation_by_delta>(key);
    request.num_guids_to_add = static_cast<uint32_t>(added.size());
    request.num_guids_to_remove = static_cast<uint32_t>(removed.size());
    request.guids_to_add = added.data();
    request.guids_to_remove = removed.data();
    manager_.UpdateReservationByDelta(request, nullptr, ++transaction_id_);
    return StatusOfLastRequest();
}

uint32_t InProcessTarget::DeleteReservation(const std::string& key) {
    const auto request = RequestFor<vesk_delete_reservation>(key);
    manager_.DeleteReservation(request, nullptr, ++transaction_id_);
    return StatusOfLastRequest();
}

BeginJobResult InProcessTarget::BeginJob(const JobRequest& request) {
    std::unique_ptr<VeskJob> job = MakeJob(request);
    ReservationInfo* reservation = manager_.GetReservationByJob(job.get());
    if (reservation == nullptr || request.reservation_key != reservation->info.reservation_key) {
        return {.status = VESK_STATUS_NOT_FOUND};
    }
    JobResource resource{.requested_trees = static_cast<uint16_t>(request.planes * request.trees)};
    if (manager_.ValidateReservationResources(reservation, resource, job.get()) != 0) {
        return {.status = kLimitsExceeded};
    }

    job->ext_job_id.reservation_id = reservation->reservation_id;
    manager_.AddJob(reservation, job.get());
    jobs_.Add(std::move(job));
    return {.reservation_id = reservation->reservation_id};
}

uint32_t InProcessTarget::EndJob(uint64_t job_id) {
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

uint32_t InProcessTarget::ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) {
    manager_.UpdateReservationWithGuidPkeys({guid, 1}, pkeys);
    return VESK_STATUS_SUCCESS;
}

ManagerCounters InProcessTarget::counters() const {
    ManagerCounters counters = observer_.replay;
    counters.failed_requests = fabric_.failed_reservation_requests;
    return counters;
}

void InProcessTarget::SetCounters(const ManagerCounters& counters) {
    observer_.replay = counters;
    fabric_.failed_reservation_requests = counters.failed_requests;
}

std::vector<std::string> InProcessTarget::FailedChecks() const {
    std::vector<std::string> failed;
    uint64_t trees = leaked_trees_;
    for (const auto& [key, reservation] : manager_.reservations) {
        failed.push_back(absl::StrCat("reservation ", key, " is left, with ", reservation->info.num_guids, " HCAs and ",
                                      reservation->jobs.size(), " jobs"));
        trees += reservation->used_trees;
    }
    ExpectNone(failed, trees, "trees are still counted");
    ExpectNone(failed, manager_.hca_infos.size(), "HCAs are still reserved");
    ExpectNone(failed, manager_.reservation_keys_by_id.size(), "reservation ids are still in use");
    ExpectNone(failed, jobs_.jobs().size(), "jobs still run");
    ExpectNone(failed, jobs_.num_ended(), "jobs were ended by the manager");
    ExpectNone(failed, transaction_id_ - jobs_.num_replies(), "requests more than replies");
    for (const std::string& name : ReservationFilesIn(options_.persistent_dir)) {
        failed.push_back(absl::StrCat("file ", options_.persistent_dir, "/", name, " is left"));
    }
    ExpectNone(failed, observer_.start_up.log_records[0] + observer_.replay.log_records[0], "level-1 records");
    return failed;
}

std::vector<std::string> ReservationFilesIn(const std::string& dir) {
    std::vector<std::string> names;
    try {
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            const std::string name = entry.path().filename();
            if (name.starts_with(util::kReservationFilePrefix)) names.push_back(name);
        }
    } catch (const std::filesystem::filesystem_error& error) {
        throw InputError(absl::StrCat(dir, ": cannot be read: ", error.code().message()));
    }
    return names;
}

}    // namespace replay
