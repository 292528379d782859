// Jobs, as the daemon keeps them and the reservation manager sees them.

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

// A job's external identity.
struct VeskExtJobId {
    uint64_t job_id = 0;
    uint64_t reservation_id = 0;    // id of the reservation under which the job was started
    std::string reservation_key;    // key of the reservation to which the job belongs; may be empty

    // The key, or "default" when it is empty, an underscore, and the job id in decimal: "appA_42".
    std::string ToString() const;
};

// One port of a job.
struct PortData {
    uint64_t guid = 0;    // of the HCA to which the port belongs
    uint8_t port_num = 0;
};

// By GUID, then port number, then address.
struct PortDataOrder {
    bool operator()(const PortData* a, const PortData* b) const;
};

// The ports that one reduction tree spans. Not owning.
struct VeskTree {
    std::set<const PortData*, PortDataOrder> ports;
};

// Trees requested by a starting job, summed over all planes.
struct JobResource {
    uint16_t requested_trees = 0;
};

// A running job. It owns its ports; its trees point to them.
class VeskJob {
public:
    VeskJob() = default;
    VeskJob(const VeskJob&) = delete;
    VeskJob& operator=(const VeskJob&) = delete;

    VeskExtJobId ext_job_id;

    // The job is in its reservation's counts. Written by the manager alone. When a job ends whose flag is set, the
    // daemon takes it out with ReservationManager::RemoveJob, once.
    bool reservation_accounted = false;

    // The job's reduction trees by plane. Every plane has as many trees as the first one, and only the first one's
    // ports say which HCAs the trees span. Both counts are taken modulo 256.
    std::vector<std::vector<VeskTree>> plane_trees;

    // Adds a port and returns it. The pointer stays valid while the job lives.
    const PortData* AddPort(uint64_t guid, uint8_t port_num);

    // Calls the function for every port, in the order in which the ports were added.
    void ForEachPort(const std::function<void(const PortData*)>& function) const;

    // Whether the predicate holds for every port. Stops at the first port for which it does not.
    bool AllOfPorts(const std::function<bool(const PortData*)>& predicate) const;

private:
    std::deque<PortData> ports_;
};
