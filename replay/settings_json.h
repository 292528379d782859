// The settings as a checkpoint and a report hold them: a member for each field.

#pragma once

#include <nlohmann/json.hpp>

#include "replay/settings.h"

namespace replay {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ReplaySettings, hcas, procs_per_hca, per, auto_by_pkeys, planes, trees, num_trees,
                                   max_jobs_per_hca, default_num_trees, log_level)

}    // namespace replay
