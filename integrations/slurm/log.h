// Messages for the operator.

#pragma once

#include <syslog.h>

#include <string>

namespace reservation_slurm {

// Hooks write to the system log, as nobody reads their output, and the service to standard error, where its journal is.
enum class LogTarget { kSystemLog, kStandardError };

// Until it is called: standard error.
void SetLogTarget(LogTarget target);

// `priority`: as syslog's, LOG_INFO for example. Any thread.
void Log(int priority, const std::string& message);

}    // namespace reservation_slurm
