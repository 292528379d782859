// The reservation manager that a replay runs through: in this process, or in a daemon.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replay/run/recorder.h"
#include "replay/target/reservation_service.h"

class ReplayTarget {
public:
    virtual ~ReplayTarget() = default;

    // The ways to reach it, at least one, for as long as it lives. Each serves one thread at a time, different ones
    // different threads.
    virtual std::vector<ReservationService*> Clients() = 0;

    // What it has told since the replay started. Throws std::runtime_error when that is not to be had.
    virtual Recorded recorded() const = 0;

    // What must not be when all jobs have ended, a line each: anything that is left, or went wrong on the way. Throws
    // std::runtime_error when that is not to be had.
    virtual std::vector<std::string> FailedChecks() const = 0;
};

// Adds "3 jobs still run" to the failed checks for a count that should be 0.
void ExpectNone(std::vector<std::string>& failed, uint64_t count, const std::string& what);
