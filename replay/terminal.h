// Messages and progress on standard error.

#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace replay {

// Prints "reservation-replay: MESSAGE" as a line of its own; it replaces a progress line.
void PrintMessage(const std::string& message);

// A line that shows how far the replay is, when standard error is a terminal.
class ProgressLine {
public:
    explicit ProgressLine(size_t total_jobs);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine();    // clears the line

    // Shows this state, unless the line changed less than 0.1 s ago.
    void Show(size_t jobs, int64_t trace_seconds);

private:
    const size_t total_jobs_;
    const bool is_terminal_;
    std::chrono::steady_clock::time_point next_update_{};
};

}    // namespace replay
