// The reservation manager that a replay runs through: in this process, or in a daemon.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "replay/target/manager_observer.h"
#include "replay/target/target_client.h"

namespace replay {

class Target {
public:
    virtual ~Target() = default;

    // At least one. They live as long as the target; different ones may be used at once.
    virtual std::vector<TargetClient*> Clients() = 0;

    // Counted since the replay started. Throws std::runtime_error when the manager does not answer.
    virtual ManagerCounters counters() const = 0;

    // For use after all jobs have ended: a line for anything that is left, or went wrong on the way. Throws
    // std::runtime_error when the manager does not answer.
    virtual std::vector<std::string> FailedChecks() const = 0;
};

// Adds "3 jobs still run" to `failed` for a count that is not 0.
void ExpectNone(std::vector<std::string>& failed, uint64_t count, const std::string& what);

}    // namespace replay
