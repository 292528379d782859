#include "replay/run/owner_session.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {

constexpr uint16_t kDefaultPkey = 0xffff;

// The key that the manager gives the reservation that it makes by itself for a pkey.
std::string AutomaticReservationKey(uint16_t pkey) {
    char key[sizeof("reservation_0xffff")];
    std::snprintf(key, sizeof(key), "reservation_0x%x", unsigned{pkey});
    return key;
}

// GUID of the HCA with this index. The second-lowest bit of the first byte marks addresses that are administered
// locally: no HCA was ever made with one.
uint64_t HcaGuid(uint32_t hca) { return 0x0200'0000'0000'0001 + hca; }

std::vector<uint64_t> GuidsOf(const RunningJob& job) {
    std::vector<uint64_t> guids(job.hcas.size());
    std::transform(job.hcas.begin(), job.hcas.end(), guids.begin(), HcaGuid);
    return guids;
}

}    // namespace

JobRequest MakeRequest(const RunningJob& job, const Owner& owner, const Settings& settings) {
    return {.job_id = job.id,
            .reservation_key = settings.auto_by_pkeys ? AutomaticReservationKey(owner.pkey) : job.owner,
            .guids = GuidsOf(job),
            .planes = settings.planes,
            .trees = settings.trees};
}

std::set<uint16_t> PortPkeys(uint16_t pkey) { return {pkey, kDefaultPkey}; }

std::string OwnerSession::Start(RunningJob& job) {
    std::string refusal = Reserve(job);
    if (!refusal.empty()) return refusal;

    const uint32_t status = Perform("job_start", [&] {
        const JobVerdict verdict = client_.BeginJob(MakeRequest(job, owner_, settings_));
        job.reservation_id = verdict.reservation_id;
        return verdict.status;
    });
    if (status == 0) return {};
    Release(job);
    return "job_start: " + StatusName(status);
}

void OwnerSession::End(const RunningJob& job) {
    Perform("job_end", [&] { return client_.EndJob(job.id); });
    Release(job);
}

std::string OwnerSession::Reserve(const RunningJob& job) {
    const bool is_new = owner_.num_hcas == 0;
    const char* kind = settings_.auto_by_pkeys ? "pkey_report" : is_new ? "create" : "update";
    const std::vector<uint64_t> guids = GuidsOf(job);
    uint32_t status = 0;
    if (settings_.auto_by_pkeys) {
        status = ReportPkeys(guids, PortPkeys(owner_.pkey));
    } else if (is_new) {
        status = Perform(kind,
                         [&] { return client_.CreateReservation(job.owner, owner_.pkey, guids, settings_.num_trees); });
    } else {
        status = Perform(kind, [&] { return client_.UpdateReservation(job.owner, guids, {}); });
    }
    if (status != 0) return kind + (": " + StatusName(status));
    owner_.num_hcas += static_cast<uint32_t>(guids.size());
    return {};
}

void OwnerSession::Release(const RunningJob& job) {
    const std::vector<uint64_t> guids = GuidsOf(job);
    owner_.num_hcas -= static_cast<uint32_t>(guids.size());
    if (settings_.auto_by_pkeys) {
        ReportPkeys(guids, {});
    } else if (owner_.num_hcas == 0) {
        Perform("delete", [&] { return client_.DeleteReservation(job.owner); });
    } else {
        Perform("update", [&] { return client_.UpdateReservation(job.owner, {}, guids); });
    }
}

// Reports the same pkeys for the ports of all these HCAs. Returns the first status that is not 0, if there is one.
uint32_t OwnerSession::ReportPkeys(const std::vector<uint64_t>& guids, const std::set<uint16_t>& pkeys) {
    uint32_t first_failure = 0;
    for (const uint64_t guid : guids) {
        const uint32_t status = Perform("pkey_report", [&] { return client_.ReportPkeys(guid, pkeys); });
        if (first_failure == 0) first_failure = status;
    }
    return first_failure;
}

uint32_t OwnerSession::Perform(const char* kind, const std::function<uint32_t()>& operation) {
    const auto start = std::chrono::steady_clock::now();
    const uint32_t status = operation();
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
    operations_.push_back({kind, StatusName(status), duration.count()});
    return status;
}
