// The smallest daemon: it makes a reservation, admits a job into it, and lets the deletion of the reservation end the
// job.

#include <cstdio>
#include <filesystem>
#include <map>

#include "host/job.h"
#include "host/option_info.h"
#include "reservation/reservation_manager.h"

namespace {

// Where replies go, and where the manager finds the running jobs and ends them.
class Daemon : public CommandManager {
public:
    std::map<uint64_t, VeskJob*> jobs;

    void SendReservationInfoList(const dov_ep*, vesk_reservation_info_list& list, uint64_t transaction) const override {
        std::printf("reply to %lu: status %u, %lu reservation(s)\n", transaction, list.status, list.num_reservations);
    }
    void HandleJobError(VeskJob* job, vesk_error_value, vesk_error_type, bool, bool) override {
        std::printf("job %s lost its reservation\n", job->ext_job_id.ToString().c_str());
    }
    void SendEndJob(dov_ep*, const VeskJob* job) override { jobs.erase(job->ext_job_id.job_id); }
    VeskJob* FindJob(uint64_t job_id, uint64_t, const char*) override {
        const auto found = jobs.find(job_id);
        return found != jobs.end() ? found->second : nullptr;
    }
    void GetJobsByReservationKey(std::set<VeskJob*>& found, const char* key) const override {
        for (const auto& [job_id, job] : jobs) {
            if (job->ext_job_id.reservation_key == key) found.insert(job);
        }
    }
};

}    // namespace

int main() {
    OptionInfo options;
    options.persistent_dir = std::filesystem::temp_directory_path() / "reservation_manager_embed";
    options.reservation_mode = true;
    options.reservation_allow_ending_jobs = true;
    std::filesystem::create_directories(options.persistent_dir);
    g_option_info = &options;

    Daemon daemon;
    ReservationManager manager(&daemon);
    manager.ReadPersistentReservationInfoFiles();

    uint64_t guids[] = {0x12, 0x10, 0x11};
    vesk_create_reservation create{};
    vesk_copy_key(create.reservation_key, "appA");
    create.pkey = 0x8001;
    create.num_guids = 3;
    create.guids = guids;
    for (uint32_t& limit : create.limits) limit = VESK_LIMIT_NOT_GIVEN;
    create.limits[VESK_LIMIT_NUM_TREES] = 4;
    manager.CreateReservation(create, nullptr, 1);

    // A job on two of the HCAs, with one tree in one plane.
    VeskJob job;
    VeskTree tree;
    for (const uint64_t guid : {0x10, 0x11}) tree.ports.insert(job.AddPort(guid, 1));
    job.plane_trees = {{tree}};
    job.ext_job_id.job_id = 42;

    ReservationInfo* const reservation = manager.GetReservationByJob(&job);
    if (reservation == nullptr) return 1;
    JobResource resource{.requested_trees = 1};
    if (manager.ValidateReservationResources(reservation, resource, &job) != 0) return 1;
    job.ext_job_id.reservation_key = reservation->info.reservation_key;
    job.ext_job_id.reservation_id = reservation->reservation_id;
    daemon.jobs[42] = &job;
    manager.AddJob(reservation, &job);
    std::printf("job 42 runs in %s, %u tree(s) in use\n", reservation->info.reservation_key, reservation->used_trees);

    vesk_delete_reservation remove{};
    vesk_copy_key(remove.reservation_key, "appA");
    manager.DeleteReservation(remove, nullptr, 2);
    return manager.reservations.empty() && daemon.jobs.empty() ? 0 : 1;
}
