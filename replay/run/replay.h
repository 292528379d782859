// Runs a workload through a reservation service: jobs start and end at the times of their trace, and their owners'
// reservations grow and shrink with them.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "replay/report/latency.h"
#include "replay/run/client_pool.h"
#include "replay/run/owner_session.h"
#include "replay/run/replay_state.h"
#include "replay/settings.h"
#include "replay/target/reservation_service.h"
#include "replay/trace/workload.h"

// At each moment of the trace first the jobs that end, then those that start, go to the clients: the jobs of one owner
// in order to one of them, those of different owners at once. So the figures do not depend on how many clients there
// are, and HCAs are given back before they are taken again.
class Replay {
public:
    // Called with the jobs that have started or been refused, and the time in the trace.
    using Progress = std::function<void(size_t, int64_t)>;

    // The workload, the settings and the clients, at least one, must outlive the replay. `state` belongs to the same
    // workload and settings; what it has running is running in the service.
    Replay(const Workload& workload, const Settings& settings, const std::vector<ReservationService*>& clients,
           ReplayState state);

    // A replay from the start.
    Replay(const Workload& workload, const Settings& settings, const std::vector<ReservationService*>& clients);

    // Goes on until all jobs have ended, and returns true. With `stop_after` other than 0 it returns false as soon as
    // that many jobs have started or been refused, if one is running then, and may be called again. Throws what the
    // service throws; the replay cannot go on then.
    bool Run(uint64_t stop_after, const Progress& progress);

    const ReplayState& state() const { return state_; }

    // Of the operations that this object carried out.
    const Latencies& latencies() const { return latencies_; }

    // The jobs of a stopped replay, for the service that is to take them back.
    std::vector<StoredJob> RunningJobs() const;

private:
    struct StartingJob : RunningJob {
        int64_t run_time = 0;
        std::string refusal;    // why it was refused; empty: it was not
    };

    bool RunUntil(uint64_t stop_after, const Progress& progress);
    bool StartWaitingJobs(uint64_t stop_after);
    bool GoToNextChange();
    std::vector<StartingJob> TakeFittingJobs(size_t most);
    StartingJob Equip(const WorkloadJob& job);
    void GiveBack(const RunningJob& job);
    void StartJobs(std::vector<StartingJob> jobs);
    void EndJobs();

    template <typename Job, typename Action>
    void RunByOwner(std::vector<Job>& jobs, const Action& act);

    void Count(const std::vector<Operation>& operations);
    void NoteWait(const WorkloadJob& job);
    Usage CurrentUsage() const;
    void NoteUsage();
    void NotePeaks();

    const Workload& workload_;
    const Settings& settings_;
    ClientPool clients_;
    ReplayState state_;
    Latencies latencies_;
    std::set<uint32_t> free_hcas_;
    std::set<uint16_t> free_pkeys_;
};
