// How the program ends, and what ends it early.

#pragma once

#include <stdexcept>
#include <string>

namespace reservationctl {

// The program's exit status. Scripts rely on the numbers.
enum class ExitStatus {
    kDone = 0,
    kRefused = 1,    // by the manager, by the person asked, or anything that has no number of its own
    kWrongUsage = 2,
    kNoDaemon = 3,
    kNotAllowed = 4,    // or no TLS connection comes about, since the certificates do not fit
    kTryLater = 5,    // the daemon has no room for more calls, or for data; nothing has been changed
    kNoSuchReservation = 6,
    kChangedMeanwhile = 7,    // between a plan and its execution; nothing has been changed
};

// Ends the program with this status. The message is complete: it names the option, file, line or address at fault.
class Error : public std::runtime_error {
public:
    Error(ExitStatus status, const std::string& message) : std::runtime_error(message), status_(status) {}

    ExitStatus status() const { return status_; }

private:
    ExitStatus status_;
};

// An option, or a file that an option names, that cannot be used.
class UsageError : public Error {
public:
    explicit UsageError(const std::string& message) : Error(ExitStatus::kWrongUsage, message) {}
};

}    // namespace reservationctl
