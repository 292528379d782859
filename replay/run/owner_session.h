// What is asked of a reservation manager for the jobs of one owner.

#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "replay/run/replay_state.h"
#include "replay/settings.h"
#include "replay/target/reservation_service.h"

// An operation that was carried out.
struct Operation {
    const char* kind;    // as in Figures::operations
    std::string status;    // its name
    double seconds;    // that it took
};

// The job as its service gets to know it.
JobRequest MakeRequest(const RunningJob& job, const Owner& owner, const Settings& settings);

// The pkeys that a port of an owner with this pkey carries.
std::set<uint16_t> PortPkeys(uint16_t pkey);

// One client at work for one owner. All of them must outlive it.
class OwnerSession {
public:
    OwnerSession(const Settings& settings, Owner& owner, ReservationService& client)
        : settings_(settings), owner_(owner), client_(client) {}

    // Puts the job's HCAs into the owner's reservation, which is made with the first ones, and the job into it; sets
    // the job's reservation_id. Returns why that was refused; nothing when it was not. What was refused has left
    // nothing.
    std::string Start(RunningJob& job);

    // Takes a job that has started out again, with its HCAs; the reservation goes with the last ones.
    void End(const RunningJob& job);

    // All that was carried out, in order.
    const std::vector<Operation>& operations() const { return operations_; }

private:
    std::string Reserve(const RunningJob& job);
    void Release(const RunningJob& job);
    uint32_t ReportPkeys(const std::vector<uint64_t>& guids, const std::set<uint16_t>& pkeys);
    uint32_t Perform(const char* kind, const std::function<uint32_t()>& operation);

    const Settings& settings_;
    Owner& owner_;
    ReservationService& client_;
    std::vector<Operation> operations_;
};
