// A reservation manager in this process, with the components that a daemon has around it.

#pragma once

#include <string>
#include <vector>

#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/option_info.h"
#include "replay/target/command_manager.h"
#include "replay/target/manager_observer.h"
#include "replay/target/target.h"
#include "replay/target/target_client.h"
#include "reservation/reservation_manager.h"

namespace replay {

// Sets the manager's globals, and the log's sink and level; the destructor restores them. REQUIRES: one at a time.
class InProcessTarget : public TargetClient, public Target {
public:
    InProcessTarget(OptionInfo options, int log_level);
    InProcessTarget(const InProcessTarget&) = delete;
    InProcessTarget& operator=(const InProcessTarget&) = delete;
    ~InProcessTarget() override;

    // Loads the stored reservations, or makes the automatic ones from the running jobs' ports, and has the running jobs
    // counted in them. Returns the ids of the jobs that were not. REQUIRES: called before any operation, once in a
    // process.
    std::vector<uint64_t> StartUp(const std::vector<StoredJob>& running_jobs);

    uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                               uint32_t num_trees) override;
    uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                               std::vector<uint64_t> removed) override;
    uint32_t DeleteReservation(const std::string& key) override;
    BeginJobResult BeginJob(const JobRequest& request) override;
    uint32_t EndJob(uint64_t job_id) override;
    uint32_t ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) override;

    std::vector<TargetClient*> Clients() override { return {this}; }
    std::vector<std::string> FailedChecks() const override;
    ManagerCounters counters() const override;

    // Counted during StartUp(); counters() has the rest.
    const ManagerCounters& start_up_counters() const { return observer_.start_up; }

    // Goes on counting where an earlier process stopped. REQUIRES: called before StartUp().
    void SetCounters(const ManagerCounters& counters);

private:
    uint32_t StatusOfLastRequest() const { return jobs_.StatusOf(transaction_id_, kNoReply); }

    OptionInfo options_;
    Fabric fabric_;
    ManagerObserver observer_;
    ReplayCommandManager jobs_;
    ReservationManager manager_;
    uint64_t transaction_id_ = 0;    // of the last request
    uint64_t leaked_trees_ = 0;    // still in use by a reservation when its last job had ended

    OptionInfo* const previous_options_;
    Fabric* const previous_fabric_;
    EventManager* const previous_event_manager_;
};

// The names in `dir` that the manager takes for those of reservation files. Throws InputError.
std::vector<std::string> ReservationFilesIn(const std::string& dir);

}    // namespace replay
