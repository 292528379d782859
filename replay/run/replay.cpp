#include "replay/run/replay.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace {

// Full members' pkeys, the default one excepted. All are smaller than that one, which every port carries too.
constexpr uint16_t kFirstPkey = 0x8001;
constexpr uint16_t kLastPkey = 0xfffe;

ReplayState StartOf(const Workload& workload) {
    ReplayState state;
    state.figures = FiguresOf(workload);
    if (!workload.jobs.empty()) state.now = workload.jobs.front().arrival;
    return state;
}

// The jobs of each owner, in their order; the owners in the order of their first jobs.
template <typename Job>
std::vector<std::vector<Job*>> GroupByOwner(std::vector<Job>& jobs) {
    std::vector<std::vector<Job*>> groups;
    std::unordered_map<std::string_view, size_t> group_of_owner;
    for (Job& job : jobs) {
        const auto [group, is_new] = group_of_owner.try_emplace(job.owner, groups.size());
        if (is_new) groups.emplace_back();
        groups[group->second].push_back(&job);
    }
    return groups;
}

bool SameUse(const Usage& a, const Usage& b) {
    return a.hcas == b.hcas && a.reservations == b.reservations && a.trees == b.trees;
}

}    // namespace

Replay::Replay(const Workload& workload, const Settings& settings, const std::vector<ReservationService*>& clients,
               ReplayState state)
    : workload_(workload), settings_(settings), clients_(clients), state_(std::move(state)) {
    for (uint32_t hca = 0; hca < settings_.hcas; ++hca) free_hcas_.insert(free_hcas_.end(), hca);
    for (uint32_t pkey = kFirstPkey; pkey <= kLastPkey; ++pkey) {
        free_pkeys_.insert(free_pkeys_.end(), static_cast<uint16_t>(pkey));
    }
    for (const auto& [end, job] : state_.running) {
        for (const uint32_t hca : job.hcas) free_hcas_.erase(hca);
    }
    for (const auto& [name, owner] : state_.owners) free_pkeys_.erase(owner.pkey);
}

Replay::Replay(const Workload& workload, const Settings& settings, const std::vector<ReservationService*>& clients)
    : Replay(workload, settings, clients, StartOf(workload)) {}

bool Replay::Run(uint64_t stop_after, const Progress& progress) {
    const auto start = std::chrono::steady_clock::now();
    const bool is_finished = RunUntil(stop_after, progress);
    state_.figures.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return is_finished;
}

std::vector<StoredJob> Replay::RunningJobs() const {
    std::vector<StoredJob> jobs;
    for (const auto& [end, job] : state_.running) {
        const Owner& owner = state_.owners.at(job.owner);
        jobs.push_back({.request = MakeRequest(job, owner, settings_),
                        .reservation_id = job.reservation_id,
                        .pkeys = PortPkeys(owner.pkey)});
    }
    return jobs;
}

bool Replay::RunUntil(uint64_t stop_after, const Progress& progress) {
    do {
        if (!StartWaitingJobs(stop_after)) return false;
        NoteUsage();
        progress(state_.figures.Handled(), state_.now);
    } while (GoToNextChange());
    return true;
}

// Starts the jobs that fit, first come first served. False when the replay is to stop.
bool Replay::StartWaitingJobs(uint64_t stop_after) {
    const Figures& figures = state_.figures;
    while (true) {
        const uint64_t handled = figures.Handled();
        StartJobs(TakeFittingJobs(stop_after > handled ? stop_after - handled : stop_after == 0 ? SIZE_MAX : 1));
        if (figures.Handled() == handled) return true;
        const bool is_enough = stop_after != 0 && figures.Handled() >= stop_after;
        if (is_enough && !state_.running.empty()) return false;
    }
}

// Goes to the next moment at which jobs end or arrive. False when there is none.
bool Replay::GoToNextChange() {
    const std::vector<WorkloadJob>& jobs = workload_.jobs;
    const bool is_arrival_left = state_.next_arrival < jobs.size();
    if (state_.running.empty() && !is_arrival_left) return false;

    if (state_.running.empty()) {
        state_.now = jobs[state_.next_arrival].arrival;
    } else {
        state_.now = state_.running.begin()->first.first;
        if (is_arrival_left) state_.now = std::min(state_.now, jobs[state_.next_arrival].arrival);
    }
    EndJobs();
    while (state_.next_arrival < jobs.size() && jobs[state_.next_arrival].arrival <= state_.now) {
        state_.waiting.push_back(state_.next_arrival++);
    }
    return true;
}

// Takes at most this many waiting jobs that can be started together, with their HCAs and their owners' pkeys.
std::vector<Replay::StartingJob> Replay::TakeFittingJobs(size_t most) {
    std::vector<StartingJob> jobs;
    while (!state_.waiting.empty() && jobs.size() < most) {
        const WorkloadJob& job = workload_.jobs[state_.waiting.front()];
        if (job.hcas > free_hcas_.size()) break;
        const bool has_pkey = state_.owners.contains(job.owner) || !free_pkeys_.empty();
        if (!has_pkey && !jobs.empty()) break;    // one that is refused gives its pkey back
        state_.waiting.pop_front();
        NoteWait(job);
        if (!has_pkey) {
            ++state_.figures.refused["no free pkey for another owner"];
            break;
        }
        jobs.push_back(Equip(job));
    }
    return jobs;
}

// Gives the job the lowest free HCAs, and its owner a pkey if it has none.
Replay::StartingJob Replay::Equip(const WorkloadJob& job) {
    const auto first_left = std::next(free_hcas_.begin(), job.hcas);
    std::vector<uint32_t> hcas(free_hcas_.begin(), first_left);
    free_hcas_.erase(free_hcas_.begin(), first_left);
    const auto [owner, is_new] = state_.owners.try_emplace(job.owner);
    if (is_new) owner->second.pkey = free_pkeys_.extract(free_pkeys_.begin()).value();
    return {{.id = job.id, .owner = job.owner, .hcas = std::move(hcas)}, job.run_time, {}};
}

// Takes back what a job had that is over or was refused.
void Replay::GiveBack(const RunningJob& job) {
    free_hcas_.insert(job.hcas.begin(), job.hcas.end());
    const auto owner = state_.owners.find(job.owner);
    if (owner == state_.owners.end() || owner->second.num_hcas != 0) return;
    free_pkeys_.insert(owner->second.pkey);
    state_.owners.erase(owner);
}

void Replay::StartJobs(std::vector<StartingJob> jobs) {
    RunByOwner(jobs, [](OwnerSession& session, StartingJob& job) { job.refusal = session.Start(job); });
    Figures& figures = state_.figures;
    for (StartingJob& job : jobs) {
        if (!job.refusal.empty()) {
            ++figures.refused[job.refusal];
            GiveBack(job);
            continue;
        }
        ++figures.replayed;
        const ReplayState::EndKey end(state_.now + job.run_time, figures.replayed);
        state_.running.emplace(end, static_cast<RunningJob&&>(job));
    }
    NotePeaks();
}

// Ends the jobs whose time has come.
void Replay::EndJobs() {
    std::vector<RunningJob> jobs;
    while (!state_.running.empty() && state_.running.begin()->first.first <= state_.now) {
        jobs.push_back(std::move(state_.running.extract(state_.running.begin()).mapped()));
    }
    RunByOwner(jobs, &OwnerSession::End);
    for (const RunningJob& job : jobs) GiveBack(job);
}

// Calls `act` with a session of its owner and each job, and waits for all.
template <typename Job, typename Action>
void Replay::RunByOwner(std::vector<Job>& jobs, const Action& act) {
    const std::vector<std::vector<Job*>> groups = GroupByOwner(jobs);
    std::vector<std::vector<Operation>> operations(groups.size());
    std::vector<ClientPool::Task> tasks;
    for (size_t i = 0; i < groups.size(); ++i) {
        tasks.push_back([&, i](ReservationService& client) {
            OwnerSession session(settings_, state_.owners.at(groups[i].front()->owner), client);
            for (Job* job : groups[i]) std::invoke(act, session, *job);
            operations[i] = session.operations();
        });
    }
    clients_.Run(std::move(tasks));
    for (const std::vector<Operation>& of_owner : operations) Count(of_owner);
}

void Replay::Count(const std::vector<Operation>& operations) {
    for (const Operation& operation : operations) {
        ++state_.figures.operations[operation.kind][operation.status];
        latencies_[operation.kind].push_back(operation.seconds);
    }
}

void Replay::NoteWait(const WorkloadJob& job) {
    Figures& figures = state_.figures;
    const int64_t wait = state_.now - job.arrival;
    if (wait > 0) ++figures.waited;
    figures.total_wait += wait;
    figures.longest_wait = std::max(figures.longest_wait, wait);
}

Usage Replay::CurrentUsage() const {
    return {.time = state_.now,
            .hcas = settings_.hcas - free_hcas_.size(),
            .reservations = state_.owners.size(),
            .trees = uint64_t{settings_.planes} * settings_.trees * state_.running.size()};
}

void Replay::NoteUsage() {
    const Usage usage = CurrentUsage();
    if (state_.usage.empty() || !SameUse(usage, state_.usage.back())) state_.usage.push_back(usage);
}

void Replay::NotePeaks() {
    const Usage usage = CurrentUsage();
    Figures& figures = state_.figures;
    figures.most_hcas = std::max(figures.most_hcas, usage.hcas);
    figures.most_reservations = std::max(figures.most_reservations, usage.reservations);
    figures.most_jobs = std::max(figures.most_jobs, uint64_t{state_.running.size()});
    figures.most_trees = std::max(figures.most_trees, usage.trees);
}
