#include "replay/run/recorder.h"

#include "replay/report/terminal.h"

void Recorder::AddRecord(const LogRecord& record) {
    ++current_->records.at(static_cast<size_t>(record.level) - 1);
    if (record.level <= 2) PrintMessage("level " + std::to_string(record.level) + ": " + record.message);
}
