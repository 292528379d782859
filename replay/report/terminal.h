// What the program says on standard error.

#pragma once

#include <chrono>
#include <cstddef>
#include <string>

// Writes the message as a line of its own, in place of a progress line that is there.
void PrintMessage(const std::string& message);

// One line that tells how far the replay is, when standard error is a terminal.
class ProgressLine {
public:
    explicit ProgressLine(size_t total_jobs);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine();    // wipes the line

    // To be called often; the line changes a few times a second.
    void Show(size_t jobs, int64_t trace_seconds);

private:
    const size_t total_jobs_;
    const bool is_terminal_;
    std::chrono::steady_clock::time_point next_{};
};
