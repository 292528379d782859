// A load's way to the daemon.

#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "benchmarks/load_reservation.h"
#include "reservation/v1/reservation.pb.h"

namespace load {

// The daemon cannot be used, or did not do what it was asked. The text says why.
class LoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// As many as the daemon reads without an answer. With more, it might wait for the load to read, and the load for it.
inline constexpr uint32_t kMaxSessionInFlight = 64;

struct LoadStep {
    Action action;
    LoadReservation* reservation;
};

struct LoadAnswer {
    LoadStep step;
    double seconds;    // from the request to its answer
    std::string failure;    // why the step was not done; empty: it was
};

// For one thread at a time.
class LoadConnection {
public:
    virtual ~LoadConnection() = default;

    // Asks for the step, and does not wait for the answer. The reservation must live until that has been received.
    virtual void Send(const LoadStep& step) = 0;

    // Waits for the next answer. REQUIRES: a step was sent that has none yet.
    virtual LoadAnswer Receive() = 0;
};

// Each throws LoadError when the address is malformed. Calls: each step is a unary call; they are answered in any
// order. Session: all steps go through one stream, and are answered in order; at most kMaxSessionInFlight at once.
std::unique_ptr<LoadConnection> ConnectForCalls(const std::string& address);
std::unique_ptr<LoadConnection> ConnectForSession(const std::string& address);

// Throws LoadError when no daemon answers at the address.
reservation::v1::DaemonInfo GetDaemonInfo(const std::string& address);

}    // namespace load
