#include "replay/terminal.h"

#include <absl/strings/str_format.h>
#include <unistd.h>

#include <iostream>

namespace replay {

namespace {

constexpr const char* kClearLine = "\r\x1b[K";
constexpr std::chrono::milliseconds kUpdatePeriod{100};
constexpr int64_t kSecondsPerDay = 86400;

bool IsTerminal() { return isatty(STDERR_FILENO) == 1; }

}    // namespace

void PrintMessage(const std::string& message) {
    std::cerr << (IsTerminal() ? kClearLine : "") << "reservation-replay: " << message
              << (message.ends_with('\n') ? "" : "\n");
}

ProgressLine::ProgressLine(size_t total_jobs) : total_jobs_(total_jobs), is_terminal_(IsTerminal()) {}

ProgressLine::~ProgressLine() {
    if (is_terminal_) std::cerr << kClearLine;
}

void ProgressLine::Show(size_t jobs, int64_t trace_seconds) {
    if (!is_terminal_ || total_jobs_ == 0) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_update_) return;
    next_update_ = now + kUpdatePeriod;
    std::cerr << absl::StrFormat("%s%d %%: %d of %d jobs, day %d", kClearLine, jobs * 100 / total_jobs_, jobs,
                                 total_jobs_, trace_seconds / kSecondsPerDay + 1)
              << std::flush;
}

}    // namespace replay
