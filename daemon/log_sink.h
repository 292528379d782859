// Where the daemon's log records go: standard error, a file, or syslog.

#pragma once

#include <string>

#include "host/log.h"

namespace reservationd {

// The levels of host/log.h, 1 (most severe) to 5 (most verbose).
inline constexpr int kLogError = 1;
inline constexpr int kLogWarning = 2;
inline constexpr int kLogInfo = 3;

// Sends records up to `level` to "stderr", "syslog", or the file with this path, which is opened for appending. May be
// called again, to follow a change of the settings or a rotated file. Throws std::runtime_error when the file cannot be
// opened; then the log stays as it was.
void OpenLog(const std::string& target, int level);

// Writes one record. Both may be called from any thread. Of the manager's records, which are many, those of the levels
// 3 to 5 may reach the file a second later.
void WriteLog(const LogRecord& record);
void WriteLog(int level, const std::string& message);

// Writes a record of who did what, whatever the level. May be called from any thread.
void WriteAudit(const std::string& text);

}    // namespace reservationd
