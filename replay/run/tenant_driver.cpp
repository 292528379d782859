#include "replay/run/tenant_driver.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>

#include <algorithm>
#include <chrono>

namespace replay {

namespace {

constexpr uint16_t kDefaultPkey = 0xffff;

// The key of the reservation that the manager makes from a pkey.
std::string AutomaticReservationKey(uint16_t pkey) { return absl::StrFormat("reservation_0x%x", pkey); }

// The GUID of the HCA with this index. The second-lowest bit of its first byte marks it as administered locally: no HCA
// is made with such a GUID.
uint64_t HcaGuid(uint32_t hca) { return 0x0200'0000'0000'0001 + hca; }

std::vector<uint64_t> GuidsOf(const RunningJob& job) {
    std::vector<uint64_t> guids(job.hcas.size());
    std::transform(job.hcas.begin(), job.hcas.end(), guids.begin(), HcaGuid);
    return guids;
}

}    // namespace

JobRequest MakeJobRequest(const RunningJob& job, const Tenant& tenant, const ReplaySettings& settings) {
    return {.job_id = job.id,
            .reservation_key = settings.auto_by_pkeys ? AutomaticReservationKey(tenant.pkey) : job.tenant,
            .guids = GuidsOf(job),
            .planes = settings.planes,
            .trees = settings.trees};
}

std::set<uint16_t> PortPkeys(uint16_t pkey) { return {pkey, kDefaultPkey}; }

std::optional<std::string> TenantDriver::Start(RunningJob& job) {
    if (std::optional<std::string> refusal = Reserve(job)) return refusal;

    const uint32_t status = Perform("job_start", [&] {
        const BeginJobResult result = client_.BeginJob(MakeJobRequest(job, tenant_, settings_));
        job.reservation_id = result.reservation_id;
        return result.status;
    });
    if (status == VESK_STATUS_SUCCESS) return std::nullopt;
    Release(job);
    return absl::StrCat("job_start: ", StatusName(status));
}

void TenantDriver::End(const RunningJob& job) {
    Perform("job_end", [&] { return client_.EndJob(job.id); });
    Release(job);
}

std::optional<std::string> TenantDriver::Reserve(const RunningJob& job) {
    const bool is_new = tenant_.num_hcas == 0;
    const char* kind = settings_.auto_by_pkeys ? "pkey_report" : is_new ? "create" : "update";
    const std::vector<uint64_t> guids = GuidsOf(job);
    uint32_t status = VESK_STATUS_SUCCESS;
    if (settings_.auto_by_pkeys) {
        status = ReportPkeys(guids, PortPkeys(tenant_.pkey));
    } else if (is_new) {
        status = Perform(
            kind, [&] { return client_.CreateReservation(job.tenant, tenant_.pkey, guids, settings_.num_trees); });
    } else {
        status = Perform(kind, [&] { return client_.UpdateReservation(job.tenant, guids, {}); });
    }
    if (status != VESK_STATUS_SUCCESS) return absl::StrCat(kind, ": ", StatusName(status));
    tenant_.num_hcas += static_cast<uint32_t>(guids.size());
    return std::nullopt;
}

void TenantDriver::Release(const RunningJob& job) {
    const std::vector<uint64_t> guids = GuidsOf(job);
    tenant_.num_hcas -= static_cast<uint32_t>(guids.size());
    if (settings_.auto_by_pkeys) {
        ReportPkeys(guids, {});
    } else if (tenant_.num_hcas == 0) {
        Perform("delete", [&] { return client_.DeleteReservation(job.tenant); });
    } else {
        Perform("update", [&] { return client_.UpdateReservation(job.tenant, {}, guids); });
    }
}

// Reports these pkeys for the port of each HCA. Returns the first status that is not success, else success.
uint32_t TenantDriver::ReportPkeys(const std::vector<uint64_t>& guids, const std::set<uint16_t>& pkeys) {
    uint32_t first_failure = VESK_STATUS_SUCCESS;
    for (const uint64_t guid : guids) {
        const uint32_t status = Perform("pkey_report", [&] { return client_.ReportPkeys(guid, pkeys); });
        if (first_failure == VESK_STATUS_SUCCESS) first_failure = status;
    }
    return first_failure;
}

uint32_t TenantDriver::Perform(const char* kind, const std::function<uint32_t()>& operation) {
    const auto start = std::chrono::steady_clock::now();
    const uint32_t status = operation();
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
    operations_.push_back({kind, StatusName(status), duration.count()});
    return status;
}

}    // namespace replay
