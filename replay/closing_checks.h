// What must be true when a replay is over.

#pragma once

#include <string>
#include <vector>

#include "replay/in_process_service.h"
#include "replay/replay.h"

// The checks that fail after the last job ended, a line each.
std::vector<std::string> FailedChecks(const ReplayState& state, const InProcessService& service);
