// Starts and ends the jobs of one tenant.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "replay/run/replay_state.h"
#include "replay/settings.h"
#include "replay/target/target_client.h"

namespace replay {

struct TimedOperation {
    const char* kind;    // as in Figures::operations
    std::string status;    // its name
    double seconds;    // that it took
};

JobRequest MakeJobRequest(const RunningJob& job, const Tenant& tenant, const ReplaySettings& settings);

// The pkeys that a port of a tenant with this pkey carries.
std::set<uint16_t> PortPkeys(uint16_t pkey);

// REQUIRES: settings, tenant and client outlive the driver.
class TenantDriver {
public:
    TenantDriver(const ReplaySettings& settings, Tenant& tenant, TargetClient& client)
        : settings_(settings), tenant_(tenant), client_(client) {}

    // Adds the job's HCAs to the tenant's reservation, which is created when the tenant has none, and the job to it;
    // sets the job's reservation_id. Returns why that was refused, when it was; then all is as before.
    std::optional<std::string> Start(RunningJob& job);

    // Removes the job, and its HCAs from the reservation, which is deleted with its last HCAs. REQUIRES: started.
    void End(const RunningJob& job);

    // All that was carried out, in order.
    const std::vector<TimedOperation>& operations() const { return operations_; }

private:
    std::optional<std::string> Reserve(const RunningJob& job);
    void Release(const RunningJob& job);
    uint32_t ReportPkeys(const std::vector<uint64_t>& guids, const std::set<uint16_t>& pkeys);
    uint32_t Perform(const char* kind, const std::function<uint32_t()>& operation);

    const ReplaySettings& settings_;
    Tenant& tenant_;
    TargetClient& client_;
    std::vector<TimedOperation> operations_;
};

}    // namespace replay
