// Listens for clients, on a Unix socket and with mutual TLS on TCP.

#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "daemon/engine/engine.h"

namespace reservationd {

struct ServerSettings {
    std::string socket;    // path; empty: no Unix socket
    std::string socket_group;    // name; who else may connect to the socket; empty: its owner alone
    std::string tcp_address;    // "host:port"; empty: no TCP
    std::string tls_certificate, tls_key, tls_ca;    // PEM files, for TCP
    // Common names of the client certificates that may do everything, and of those that may only read.
    std::set<std::string> full_access_names, read_only_names;
    int max_request_bytes = 4 << 20;
};

class Server {
public:
    // Listens from now on. Throws std::runtime_error, with a message that names the path or address, when it cannot.
    Server(const ServerSettings& settings, Engine& engine);

    // Ends the connections. Calls that the engine has must be answered within a few seconds.
    ~Server();

private:
    struct Listener;
    std::unique_ptr<Listener> listener_;
};

}    // namespace reservationd
