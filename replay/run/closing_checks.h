// What must be true when a replay is over.

#pragma once

#include <string>
#include <vector>

#include "replay/run/replay_state.h"
#include "replay/target/replay_target.h"

// The checks that fail after the last job ended, a line each.
std::vector<std::string> FailedChecks(const ReplayState& state, const ReplayTarget& target);
