#include "replay/target/manager_observer.h"

#include <absl/strings/str_cat.h>

#include "replay/terminal.h"

namespace replay {

void ManagerObserver::CountLogRecord(const LogRecord& record) {
    ++current_->log_records.at(static_cast<size_t>(record.level) - 1);
    if (record.level <= 2) PrintMessage(absl::StrCat("level ", record.level, ": ", record.message));
}

}    // namespace replay
