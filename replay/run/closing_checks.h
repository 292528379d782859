// What must hold when a replay is finished.

#pragma once

#include <string>
#include <vector>

#include "replay/run/replay_state.h"
#include "replay/target/target.h"

namespace replay {

// A line for each check that fails. Throws as Target::FailedChecks().
std::vector<std::string> FailedChecks(const ReplayState& state, const Target& target);

}    // namespace replay
