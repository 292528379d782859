// A running daemon that a replay goes through.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/option_info.h"
#include "replay/target/replay_target.h"

struct Connection {
    std::string address;    // "unix:PATH", or "host:port" with mutual TLS; empty: none
    std::string tls_ca;    // paths of PEM files; empty: not given
    std::string tls_certificate;
    std::string tls_key;
    uint32_t clients = 1;    // connections, at least 1
};

class DaemonTarget : public ReplayTarget {
public:
    // The daemon's own, as far as it tells them.
    virtual const OptionInfo& options() const = 0;
};

// Whether this program is built to connect to a daemon at all.
extern const bool kCanConnect;

// Connects to a daemon that has no reservations and no jobs. Throws InputError, which names the address, the option or
// the file at fault, when that cannot be done, or there is something already.
std::unique_ptr<DaemonTarget> ConnectToDaemon(const Connection& connection);
