#include "replay/run/replay.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace replay {

namespace {

// The pkeys of full members, except the default one, which is larger and carried by every port.
constexpr uint16_t kFirstPkey = 0x8001;
constexpr uint16_t kLastPkey = 0xfffe;

ReplayState InitialState(const Workload& workload) {
    ReplayState state;
    Figures& figures = state.figures;
    figures.too_wide = workload.too_wide;
    figures.without_run_time = workload.without_run_time;
    figures.without_procs = workload.without_procs;
    figures.jobs_in_trace =
        workload.jobs.size() + workload.too_wide + workload.without_run_time + workload.without_procs;
    if (!workload.jobs.empty()) state.now = workload.jobs.front().arrival;
    return state;
}

// The jobs of each tenant in order; tenants by their first job.
template <typename Job>
std::vector<std::vector<Job*>> GroupByTenant(std::vector<Job>& jobs) {
    std::vector<std::vector<Job*>> groups;
    std::unordered_map<std::string_view, size_t> group_of_tenant;
    for (Job& job : jobs) {
        const auto [group, is_new] = group_of_tenant.try_emplace(job.tenant, groups.size());
        if (is_new) groups.emplace_back();
        groups[group->second].push_back(&job);
    }
    return groups;
}

bool IsSameUsage(const Usage& a, const Usage& b) {
    return a.hcas == b.hcas && a.reservations == b.reservations && a.trees == b.trees;
}

}    // namespace

Replay::Replay(const Workload& workload, const ReplaySettings& settings, const std::vector<TargetClient*>& clients,
               ReplayState state)
    : workload_(workload), settings_(settings), clients_(clients), state_(std::move(state)) {
    for (uint32_t hca = 0; hca < settings_.hcas; ++hca) free_hcas_.insert(free_hcas_.end(), hca);
    for (uint32_t pkey = kFirstPkey; pkey <= kLastPkey; ++pkey) {
        free_pkeys_.insert(free_pkeys_.end(), static_cast<uint16_t>(pkey));
    }
    for (const auto& [end, job] : state_.running) {
        for (const uint32_t hca : job.hcas) free_hcas_.erase(hca);
    }
    for (const auto& [name, tenant] : state_.tenants) free_pkeys_.erase(tenant.pkey);
}

Replay::Replay(const Workload& workload, const ReplaySettings& settings, const std::vector<TargetClient*>& clients)
    : Replay(workload, settings, clients, InitialState(workload)) {}

bool Replay::Run(uint64_t stop_after, const Progress& progress) {
    const auto start = std::chrono::steady_clock::now();
    const bool is_finished = RunUntil(stop_after, progress);
    state_.figures.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return is_finished;
}

std::vector<StoredJob> Replay::RunningJobs() const {
    std::vector<StoredJob> jobs;
    for (const auto& [end, job] : state_.running) {
        const Tenant& tenant = state_.tenants.at(job.tenant);
        jobs.push_back({.request = MakeJobRequest(job, tenant, settings_),
                        .reservation_id = job.reservation_id,
                        .pkeys = PortPkeys(tenant.pkey)});
    }
    return jobs;
}

bool Replay::RunUntil(uint64_t stop_after, const Progress& progress) {
    do {
        if (!StartWaitingJobs(stop_after)) return false;
        AppendUsage();
        progress(state_.figures.NumHandled(), state_.now);
    } while (AdvanceToNextChange());
    return true;
}

// Starts the jobs that fit, first come first served. Returns false when the replay is to stop.
bool Replay::StartWaitingJobs(uint64_t stop_after) {
    const Figures& figures = state_.figures;
    while (true) {
        const uint64_t handled = figures.NumHandled();
        StartJobs(DequeueFittingJobs(stop_after > handled ? stop_after - handled : stop_after == 0 ? SIZE_MAX : 1));
        if (figures.NumHandled() == handled) return true;
        const bool is_enough = stop_after != 0 && figures.NumHandled() >= stop_after;
        if (is_enough && !state_.running.empty()) return false;
    }
}

// Advances to the next moment at which jobs end or arrive. Returns false when there is none.
bool Replay::AdvanceToNextChange() {
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

// Takes waiting jobs that can start together, `most` at most, and gives them HCAs and their tenants pkeys.
std::vector<Replay::StartingJob> Replay::DequeueFittingJobs(size_t most) {
    std::vector<StartingJob> jobs;
    while (!state_.waiting.empty() && jobs.size() < most) {
        const WorkloadJob& job = workload_.jobs[state_.waiting.front()];
        if (job.hcas > free_hcas_.size()) break;
        const bool has_pkey = state_.tenants.contains(job.tenant) || !free_pkeys_.empty();
        if (!has_pkey && !jobs.empty()) break;    // refusals among those jobs may free a pkey
        state_.waiting.pop_front();
        CountWait(job);
        if (!has_pkey) {
            ++state_.figures.refused["no free pkey for another tenant"];
            break;
        }
        jobs.push_back(AssignResources(job));
    }
    return jobs;
}

// Gives the job the lowest free HCAs, and its tenant the lowest free pkey if it has none.
Replay::StartingJob Replay::AssignResources(const WorkloadJob& job) {
    const auto first_left = std::next(free_hcas_.begin(), job.hcas);
    std::vector<uint32_t> hcas(free_hcas_.begin(), first_left);
    free_hcas_.erase(free_hcas_.begin(), first_left);
    const auto [tenant, is_new] = state_.tenants.try_emplace(job.tenant);
    if (is_new) tenant->second.pkey = free_pkeys_.extract(free_pkeys_.begin()).value();
    return {{.id = job.id, .tenant = job.tenant, .hcas = std::move(hcas)}, job.run_time, {}};
}

// Frees the resources of a job that ended or was refused.
void Replay::ReturnResources(const RunningJob& job) {
    free_hcas_.insert(job.hcas.begin(), job.hcas.end());
    const auto tenant = state_.tenants.find(job.tenant);
    if (tenant == state_.tenants.end() || tenant->second.num_hcas != 0) return;
    free_pkeys_.insert(tenant->second.pkey);
    state_.tenants.erase(tenant);
}

void Replay::StartJobs(std::vector<StartingJob> jobs) {
    RunByTenant(jobs, [](TenantDriver& driver, StartingJob& job) { job.refusal = driver.Start(job); });
    Figures& figures = state_.figures;
    for (StartingJob& job : jobs) {
        if (job.refusal.has_value()) {
            ++figures.refused[*job.refusal];
            ReturnResources(job);
            continue;
        }
        ++figures.replayed;
        const ReplayState::EndKey end(state_.now + job.run_time, figures.replayed);
        state_.running.emplace(end, static_cast<RunningJob&&>(job));
    }
    UpdatePeaks();
}

// Ends the jobs that end at the present time or before.
void Replay::EndJobs() {
    std::vector<RunningJob> jobs;
    while (!state_.running.empty() && state_.running.begin()->first.first <= state_.now) {
        jobs.push_back(std::move(state_.running.extract(state_.running.begin()).mapped()));
    }
    RunByTenant(jobs, &TenantDriver::End);
    for (const RunningJob& job : jobs) ReturnResources(job);
}

// Calls `act` for each job with a driver of its tenant, and waits for all.
template <typename Job, typename Action>
void Replay::RunByTenant(std::vector<Job>& jobs, const Action& act) {
    const std::vector<std::vector<Job*>> groups = GroupByTenant(jobs);
    std::vector<std::vector<TimedOperation>> operations(groups.size());
    std::vector<ClientPool::Task> tasks;
    for (size_t i = 0; i < groups.size(); ++i) {
        tasks.push_back([&, i](TargetClient& client) {
            TenantDriver driver(settings_, state_.tenants.at(groups[i].front()->tenant), client);
            for (Job* job : groups[i]) std::invoke(act, driver, *job);
            operations[i] = driver.operations();
        });
    }
    clients_.Run(std::move(tasks));
    for (const std::vector<TimedOperation>& of_tenant : operations) Count(of_tenant);
}

void Replay::Count(const std::vector<TimedOperation>& operations) {
    for (const TimedOperation& operation : operations) {
        ++state_.figures.operations[operation.kind][operation.status];
        latencies_[operation.kind].push_back(operation.seconds);
    }
}

void Replay::CountWait(const WorkloadJob& job) {
    Figures& figures = state_.figures;
    const int64_t wait = state_.now - job.arrival;
    if (wait > 0) ++figures.waited;
    figures.total_wait += wait;
    figures.longest_wait = std::max(figures.longest_wait, wait);
}

Usage Replay::CurrentUsage() const {
    return {.time = state_.now,
            .hcas = settings_.hcas - free_hcas_.size(),
            .reservations = state_.tenants.size(),
            .trees = uint64_t{settings_.planes} * settings_.trees * state_.running.size()};
}

void Replay::AppendUsage() {
    const Usage usage = CurrentUsage();
    if (state_.usage.empty() || !IsSameUsage(usage, state_.usage.back())) state_.usage.push_back(usage);
}

void Replay::UpdatePeaks() {
    const Usage usage = CurrentUsage();
    Figures& figures = state_.figures;
    figures.most_hcas = std::max(figures.most_hcas, usage.hcas);
    figures.most_reservations = std::max(figures.most_reservations, usage.reservations);
    figures.most_jobs = std::max(figures.most_jobs, uint64_t{state_.running.size()});
    figures.most_trees = std::max(figures.most_trees, usage.trees);
}

}    // namespace replay
