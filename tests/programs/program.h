// A program that a test starts, stops, and listens to.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class Program {
public:
    static constexpr int kNotStarted = 127;    // exit status of a program that could not be started

    // Starts the program whose path and arguments `command` holds. It does not outlive the thread that starts it.
    explicit Program(const std::vector<std::string>& command);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();    // kills it if it still runs

    pid_t pid() const { return pid_; }
    void Signal(int signal) const;

    // These throw std::runtime_error, with what was printed, after half a minute in vain.
    int Wait();    // for its end; returns its exit status, or minus the signal that ended it
    void WaitFor(const std::string& text);    // to be printed

    // What it has printed so far, to standard output and standard error in one.
    std::string Output() const;

private:
    bool HasEnded();

    int output_;
    pid_t pid_;
    bool has_ended_ = false;
    int status_ = 0;
};
