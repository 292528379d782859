// Runs a workload through a reservation service: jobs start and end at the times of their trace, and their owners'
// reservations grow and shrink with them.

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "replay/figures.h"
#include "replay/reservation_service.h"
#include "replay/settings.h"
#include "replay/workload.h"

// Whoever has a reservation: a user, a group or a job of the trace.
struct Owner {
    uint16_t pkey = 0;
    uint32_t num_hcas = 0;
};

struct RunningJob {
    uint64_t id = 0;
    std::string owner;
    std::vector<uint32_t> hcas;
    uint64_t reservation_id = 0;
};

// What is in use from a moment on.
struct Usage {
    int64_t time = 0;    // seconds since the start of the trace
    uint64_t hcas = 0;
    uint64_t reservations = 0;
    uint64_t trees = 0;
};

// All that a replay needs to go on from where it is.
struct ReplayState {
    // When a job ends, and its place in the order of the starts: jobs that end together end in that order.
    using EndKey = std::pair<int64_t, uint64_t>;

    int64_t now = 0;
    size_t next_arrival = 0;    // index of the next job of the workload to arrive
    std::deque<size_t> waiting;    // indices of the jobs that wait for HCAs
    std::map<EndKey, RunningJob> running;
    std::map<std::string, Owner> owners;    // those that have a reservation
    Figures figures;
    std::vector<Usage> usage;    // by time, one where something changes
};

class Replay {
public:
    // Called with the jobs that have started or been refused, and the time in the trace.
    using Progress = std::function<void(size_t, int64_t)>;

    // The workload, the settings and the service must outlive the replay. `state` belongs to the same workload and
    // settings; what it has running is running in the service.
    Replay(const Workload& workload, const Settings& settings, ReservationService& service, ReplayState state);

    // A replay from the start.
    Replay(const Workload& workload, const Settings& settings, ReservationService& service);

    // Goes on until all jobs have ended, and returns true. With `stop_after` other than 0 it returns false as soon as
    // that many jobs have started or been refused, if one is running then, and may be called again.
    bool Run(uint64_t stop_after, const Progress& progress);

    const ReplayState& state() const { return state_; }

    // The jobs of a stopped replay, for the service that is to take them back.
    std::vector<StoredJob> RunningJobs() const;

private:
    bool RunUntil(uint64_t stop_after, const Progress& progress);
    bool StartWaitingJobs(uint64_t stop_after);
    bool GoToNextChange();
    void StartJob(const WorkloadJob& job);
    void EndFirstJob();

    std::vector<uint32_t> TakeLowestHcas(uint32_t count);
    std::string Reserve(const std::string& name, const std::vector<uint32_t>& hcas);
    void Release(const std::string& name, const std::vector<uint32_t>& hcas);
    void Forget(std::map<std::string, Owner>::iterator owner);
    uint32_t ReportPkeys(const std::vector<uint32_t>& hcas, const std::set<uint16_t>& pkeys);
    JobRequest MakeRequest(uint64_t job_id, const std::string& owner, const std::vector<uint32_t>& hcas) const;

    uint32_t Count(const char* kind, uint32_t status);
    Usage CurrentUsage() const;
    void NoteUsage();
    void NotePeaks();

    const Workload& workload_;
    const Settings& settings_;
    ReservationService& service_;
    ReplayState state_;
    std::set<uint32_t> free_hcas_;
    std::set<uint16_t> free_pkeys_;
};
