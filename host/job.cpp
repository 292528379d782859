#include "host/job.h"

#include <algorithm>
#include <functional>
#include <tuple>

std::string VeskExtJobId::ToString() const {
    static const std::string s_default = "default";
    return (reservation_key.empty() ? s_default : reservation_key) + "_" + std::to_string(job_id);
}

bool PortDataOrder::operator()(const PortData* a, const PortData* b) const {
    const auto left = std::tie(a->guid, a->port_num);
    const auto right = std::tie(b->guid, b->port_num);
    return left != right ? left < right : std::less<>()(a, b);
}

const PortData* VeskJob::AddPort(uint64_t guid, uint8_t port_num) {
    return &ports_.emplace_back(PortData{guid, port_num});
}

void VeskJob::ForEachPort(const std::function<void(const PortData*)>& function) const {
    for (const PortData& port : ports_) function(&port);
}

bool VeskJob::AllOfPorts(const std::function<bool(const PortData*)>& predicate) const {
    return std::all_of(ports_.begin(), ports_.end(), [&](const PortData& port) { return predicate(&port); });
}
