// A reservation manager in this process, with the daemon's other components around it.

#pragma once

#include <string>
#include <vector>

#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/option_info.h"
#include "replay/run/job_table.h"
#include "replay/run/recorder.h"
#include "replay/target/replay_target.h"
#include "replay/target/reservation_service.h"
#include "reservation/reservation_manager.h"

// It stands in for the daemon: it sets the daemon's globals and the log's sink and level, and gives them back when it
// is destroyed. One at a time.
class InProcessService : public ReservationService, public ReplayTarget {
public:
    InProcessService(OptionInfo options, int log_level);
    InProcessService(const InProcessService&) = delete;
    InProcessService& operator=(const InProcessService&) = delete;
    ~InProcessService() override;

    // To be called first. Loads the stored reservations, or makes the automatic ones from the running jobs' ports, and
    // has the running jobs taken back into them. Returns the ids of the jobs that were not taken back. Reservations are
    // loaded once in a process.
    std::vector<uint64_t> StartUp(const std::vector<StoredJob>& running_jobs);

    uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                               uint32_t num_trees) override;
    uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                               std::vector<uint64_t> removed) override;
    uint32_t DeleteReservation(const std::string& key) override;
    JobVerdict BeginJob(const JobRequest& job) override;
    uint32_t EndJob(uint64_t job_id) override;
    uint32_t ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) override;

    std::vector<ReservationService*> Clients() override { return {this}; }
    std::vector<std::string> FailedChecks() const override;
    Recorded recorded() const override;

    // What the manager told the daemon while it started up. The rest is in recorded().
    const Recorded& recorded_at_start_up() const { return recorder_.start_up; }

    // Goes on counting from what an earlier process recorded. Before StartUp.
    void SetRecorded(const Recorded& recorded);

private:
    uint32_t StatusOfRequest() const { return jobs_.StatusOf(transaction_id_, kNoReply); }

    OptionInfo options_;
    Fabric fabric_;
    Recorder recorder_;
    JobTable jobs_;
    ReservationManager manager_;
    uint64_t transaction_id_ = 0;    // of the last request
    uint64_t leaked_trees_ = 0;    // still counted in reservations whose last job had ended

    OptionInfo* const previous_options_;
    Fabric* const previous_fabric_;
    EventManager* const previous_event_manager_;
};

// The names in `dir` of the entries that the manager takes for reservation files. Throws InputError.
std::vector<std::string> ReservationFilesIn(const std::string& dir);
