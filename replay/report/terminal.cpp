#include "replay/report/terminal.h"

#include <unistd.h>

#include <iostream>

namespace {

constexpr const char* kWipeLine = "\r\x1b[K";

bool StandardErrorIsTerminal() { return isatty(STDERR_FILENO) == 1; }

}    // namespace

void PrintMessage(const std::string& message) {
    std::cerr << (StandardErrorIsTerminal() ? kWipeLine : "") << "reservation-replay: " << message
              << (message.ends_with('\n') ? "" : "\n");
}

ProgressLine::ProgressLine(size_t total_jobs) : total_jobs_(total_jobs), is_terminal_(StandardErrorIsTerminal()) {}

ProgressLine::~ProgressLine() {
    if (is_terminal_) std::cerr << kWipeLine;
}

void ProgressLine::Show(size_t jobs, int64_t trace_seconds) {
    if (!is_terminal_ || total_jobs_ == 0) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    std::cerr << kWipeLine << jobs * 100 / total_jobs_ << " %: " << jobs << " of " << total_jobs_ << " jobs, day "
              << trace_seconds / 86400 + 1 << std::flush;
}
