#include "replay/replay.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {

constexpr uint16_t kDefaultPkey = 0xffff;

// Full members' pkeys, the default one excepted. All are smaller than that one, which every port carries too.
constexpr uint16_t kFirstPkey = 0x8001;
constexpr uint16_t kLastPkey = 0xfffe;

// The key that the manager gives the reservation that it makes by itself for a pkey.
std::string AutomaticReservationKey(uint16_t pkey) {
    char key[sizeof("reservation_0xffff")];
    std::snprintf(key, sizeof(key), "reservation_0x%x", unsigned{pkey});
    return key;
}

// The pkeys that a port of an owner with this pkey carries.
std::set<uint16_t> PortPkeys(uint16_t pkey) { return {pkey, kDefaultPkey}; }

// GUID of the HCA with this index. The second-lowest bit of the first byte marks addresses that are administered
// locally: no HCA was ever made with one.
uint64_t HcaGuid(uint32_t hca) { return 0x0200'0000'0000'0001 + hca; }

std::vector<uint64_t> Guids(const std::vector<uint32_t>& hcas) {
    std::vector<uint64_t> guids(hcas.size());
    std::transform(hcas.begin(), hcas.end(), guids.begin(), HcaGuid);
    return guids;
}

ReplayState StartOf(const Workload& workload) {
    ReplayState state;
    state.figures = FiguresOf(workload);
    if (!workload.jobs.empty()) state.now = workload.jobs.front().arrival;
    return state;
}

std::string VerdictName(uint32_t status) {
    if (status == VESK_ADMISSION_REFUSED) return "limits_exceeded";
    return StatusName(status);
}

bool SameUse(const Usage& a, const Usage& b) {
    return a.hcas == b.hcas && a.reservations == b.reservations && a.trees == b.trees;
}

}    // namespace

Replay::Replay(const Workload& workload, const Settings& settings, ReservationService& service, ReplayState state)
    : workload_(workload), settings_(settings), service_(service), state_(std::move(state)) {
    for (uint32_t hca = 0; hca < settings_.hcas; ++hca) free_hcas_.insert(free_hcas_.end(), hca);
    for (uint32_t pkey = kFirstPkey; pkey <= kLastPkey; ++pkey) {
        free_pkeys_.insert(free_pkeys_.end(), static_cast<uint16_t>(pkey));
    }
    for (const auto& [end, job] : state_.running) {
        for (const uint32_t hca : job.hcas) free_hcas_.erase(hca);
    }
    for (const auto& [name, owner] : state_.owners) free_pkeys_.erase(owner.pkey);
}

Replay::Replay(const Workload& workload, const Settings& settings, ReservationService& service)
    : Replay(workload, settings, service, StartOf(workload)) {}

bool Replay::Run(uint64_t stop_after, const Progress& progress) {
    const auto start = std::chrono::steady_clock::now();
    const bool is_finished = RunUntil(stop_after, progress);
    state_.figures.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return is_finished;
}

std::vector<StoredJob> Replay::RunningJobs() const {
    std::vector<StoredJob> jobs;
    for (const auto& [end, job] : state_.running) {
        jobs.push_back({.request = MakeRequest(job.id, job.owner, job.hcas),
                        .reservation_id = job.reservation_id,
                        .pkeys = PortPkeys(state_.owners.at(job.owner).pkey)});
    }
    return jobs;
}

bool Replay::RunUntil(uint64_t stop_after, const Progress& progress) {
    do {
        if (!StartWaitingJobs(stop_after)) return false;
        NoteUsage();
        progress(state_.figures.replayed + state_.figures.Refused(), state_.now);
    } while (GoToNextChange());
    return true;
}

// Starts the jobs that fit, first come first served. False when the replay is to stop.
bool Replay::StartWaitingJobs(uint64_t stop_after) {
    const Figures& figures = state_.figures;
    while (!state_.waiting.empty()) {
        const WorkloadJob& job = workload_.jobs[state_.waiting.front()];
        if (job.hcas > free_hcas_.size()) return true;
        state_.waiting.pop_front();
        StartJob(job);
        const bool is_enough = stop_after != 0 && figures.replayed + figures.Refused() >= stop_after;
        if (is_enough && !state_.running.empty()) return false;
    }
    return true;
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
    while (!state_.running.empty() && state_.running.begin()->first.first <= state_.now) EndFirstJob();
    while (state_.next_arrival < jobs.size() && jobs[state_.next_arrival].arrival <= state_.now) {
        state_.waiting.push_back(state_.next_arrival++);
    }
    return true;
}

void Replay::StartJob(const WorkloadJob& job) {
    Figures& figures = state_.figures;
    const int64_t wait = state_.now - job.arrival;
    if (wait > 0) ++figures.waited;
    figures.total_wait += wait;
    figures.longest_wait = std::max(figures.longest_wait, wait);

    const std::vector<uint32_t> hcas = TakeLowestHcas(job.hcas);
    const std::string refusal = Reserve(job.owner, hcas);
    if (!refusal.empty()) {
        ++figures.refused[refusal];
        free_hcas_.insert(hcas.begin(), hcas.end());
        return;
    }
    NotePeaks();

    const JobVerdict verdict = service_.BeginJob(MakeRequest(job.id, job.owner, hcas));
    const std::string outcome = VerdictName(verdict.status);
    ++figures.operations["job_start"][outcome];
    if (verdict.status != 0) {
        ++figures.refused["job_start: " + outcome];
        Release(job.owner, hcas);
        return;
    }
    ++figures.replayed;
    state_.running.emplace(ReplayState::EndKey(state_.now + job.run_time, figures.replayed),
                           RunningJob{job.id, job.owner, hcas, verdict.reservation_id});
    NotePeaks();
}

void Replay::EndFirstJob() {
    const RunningJob job = std::move(state_.running.begin()->second);
    state_.running.erase(state_.running.begin());
    Count("job_end", service_.EndJob(job.id));
    Release(job.owner, job.hcas);
}

std::vector<uint32_t> Replay::TakeLowestHcas(uint32_t count) {
    const auto first_left = std::next(free_hcas_.begin(), count);
    std::vector<uint32_t> hcas(free_hcas_.begin(), first_left);
    free_hcas_.erase(free_hcas_.begin(), first_left);
    return hcas;
}

// Puts the HCAs into the owner's reservation. Returns why that was refused; nothing when it was not.
std::string Replay::Reserve(const std::string& name, const std::vector<uint32_t>& hcas) {
    const auto [position, is_new] = state_.owners.try_emplace(name);
    Owner& owner = position->second;
    if (is_new) {
        if (free_pkeys_.empty()) {
            state_.owners.erase(position);
            return "no free pkey for another owner";
        }
        owner.pkey = free_pkeys_.extract(free_pkeys_.begin()).value();
    }

    const char* kind = settings_.auto_by_pkeys ? "pkey_report" : is_new ? "create" : "update";
    uint32_t status = 0;
    if (settings_.auto_by_pkeys) {
        status = ReportPkeys(hcas, PortPkeys(owner.pkey));
    } else if (is_new) {
        status = Count(kind, service_.CreateReservation(name, owner.pkey, Guids(hcas), settings_.num_trees));
    } else {
        status = Count(kind, service_.UpdateReservation(name, Guids(hcas), {}));
    }
    if (status != 0) {
        if (is_new) Forget(position);
        return kind + (": " + StatusName(status));
    }
    owner.num_hcas += static_cast<uint32_t>(hcas.size());
    return {};
}

// Takes the HCAs out of the owner's reservation, which goes with the last one, and frees them.
void Replay::Release(const std::string& name, const std::vector<uint32_t>& hcas) {
    const auto position = state_.owners.find(name);
    Owner& owner = position->second;
    owner.num_hcas -= static_cast<uint32_t>(hcas.size());
    if (settings_.auto_by_pkeys) {
        ReportPkeys(hcas, {});
    } else if (owner.num_hcas == 0) {
        Count("delete", service_.DeleteReservation(name));
    } else {
        Count("update", service_.UpdateReservation(name, {}, Guids(hcas)));
    }
    if (owner.num_hcas == 0) Forget(position);
    free_hcas_.insert(hcas.begin(), hcas.end());
}

void Replay::Forget(std::map<std::string, Owner>::iterator owner) {
    free_pkeys_.insert(owner->second.pkey);
    state_.owners.erase(owner);
}

JobRequest Replay::MakeRequest(uint64_t job_id, const std::string& owner, const std::vector<uint32_t>& hcas) const {
    const uint16_t pkey = state_.owners.at(owner).pkey;
    return {.job_id = job_id,
            .reservation_key = settings_.auto_by_pkeys ? AutomaticReservationKey(pkey) : owner,
            .guids = Guids(hcas),
            .planes = settings_.planes,
            .trees = settings_.trees};
}

uint32_t Replay::Count(const char* kind, uint32_t status) {
    ++state_.figures.operations[kind][StatusName(status)];
    return status;
}

// Reports the same pkeys for the ports of all these HCAs. Returns the first status that is not 0, if there is one.
uint32_t Replay::ReportPkeys(const std::vector<uint32_t>& hcas, const std::set<uint16_t>& pkeys) {
    uint32_t first_failure = 0;
    for (const uint32_t hca : hcas) {
        const uint32_t status = Count("pkey_report", service_.ReportPkeys(HcaGuid(hca), pkeys));
        if (first_failure == 0) first_failure = status;
    }
    return first_failure;
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
