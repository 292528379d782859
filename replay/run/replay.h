// Runs a workload through a reservation manager: jobs start and end at the times of their trace, and the reservations
// of their tenants grow and shrink with them.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "replay/report/latency.h"
#include "replay/run/client_pool.h"
#include "replay/run/replay_state.h"
#include "replay/run/tenant_driver.h"
#include "replay/settings.h"
#include "replay/target/target_client.h"
#include "replay/trace/workload.h"

namespace replay {

// At each moment of the trace, the clients first end jobs, then start jobs: those of one tenant in order by one client,
// those of different tenants at once. So the figures do not depend on the number of clients, and HCAs are free before
// they are used again.
class Replay {
public:
    // Called with the number of jobs that were started or refused, and the time in the trace in seconds.
    using Progress = std::function<void(size_t, int64_t)>;

    // Goes on from `state`. REQUIRES: at least one client; workload, settings and clients outlive the replay; the state
    // is of this workload and these settings, and its running jobs run in the manager.
    Replay(const Workload& workload, const ReplaySettings& settings, const std::vector<TargetClient*>& clients,
           ReplayState state);

    // A replay from the start.
    Replay(const Workload& workload, const ReplaySettings& settings, const std::vector<TargetClient*>& clients);

    // Returns true when all jobs have ended. With a `stop_after` that is not 0, returns false as soon as that many jobs
    // were started or refused and one is running; call it again to go on. Throws what the clients throw; then the
    // replay cannot go on.
    bool Run(uint64_t stop_after, const Progress& progress);

    const ReplayState& state() const { return state_; }

    // Of the operations that this object carried out, not of those before `state`.
    const Latencies& latencies() const { return latencies_; }

    // For a manager that starts again, to count them.
    std::vector<StoredJob> RunningJobs() const;

private:
    struct StartingJob : RunningJob {
        int64_t run_time = 0;
        std::optional<std::string> refusal;    // why it was refused, when it was
    };

    bool RunUntil(uint64_t stop_after, const Progress& progress);
    bool StartWaitingJobs(uint64_t stop_after);
    bool AdvanceToNextChange();
    std::vector<StartingJob> DequeueFittingJobs(size_t most);
    StartingJob AssignResources(const WorkloadJob& job);
    void ReturnResources(const RunningJob& job);
    void StartJobs(std::vector<StartingJob> jobs);
    void EndJobs();

    template <typename Job, typename Action>
    void RunByTenant(std::vector<Job>& jobs, const Action& act);

    void Count(const std::vector<TimedOperation>& operations);
    void CountWait(const WorkloadJob& job);
    Usage CurrentUsage() const;
    void AppendUsage();
    void UpdatePeaks();

    const Workload& workload_;
    const ReplaySettings& settings_;
    ClientPool clients_;
    ReplayState state_;
    Latencies latencies_;
    std::set<uint32_t> free_hcas_;
    std::set<uint16_t> free_pkeys_;
};

}    // namespace replay
