// A running daemon that a replay goes through.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/option_info.h"
#include "replay/target/target.h"

namespace replay {

struct ConnectOptions {
    std::string address;    // unix:PATH, or host:port with mutual TLS; empty: no daemon
    std::string tls_ca;    // paths of PEM files; empty: not given
    std::string tls_certificate;
    std::string tls_key;
    uint32_t clients = 1;    // connections, at least 1
    uint32_t in_flight = 1;    // operations that each of them has under way at once, at least 1
};

class DaemonTarget : public Target {
public:
    // The daemon's own, as far as it tells them.
    virtual const OptionInfo& options() const = 0;
};

// Whether this program is built with gRPC.
extern const bool kCanConnect;

// Connects to a daemon. Throws InputError, which names the address, option or file at fault, when that fails, when
// reservation mode is off, when the daemon has reservations or jobs, and when more operations are to be under way at
// once than there can be threads for.
std::unique_ptr<DaemonTarget> ConnectToDaemon(const ConnectOptions& options);

}    // namespace replay
