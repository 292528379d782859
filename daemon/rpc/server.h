// Listens for clients, on a Unix socket and with mutual TLS on TCP, and bounds what they can make the daemon hold.

#pragma once

#include <memory>
#include <string>

#include "daemon/engine/engine.h"
#include "daemon/rpc/access.h"

namespace reservationd {

struct ServerSettings {
    std::string socket;    // path; empty: no Unix socket
    std::string socket_group;    // name; who else may connect to the socket; empty: its owner alone
    std::string tcp_address;    // "host:port"; empty: no TCP
    std::string tls_certificate, tls_key, tls_ca;    // PEM files, for TCP
    AccessLists access;    // for TCP
    int max_request_bytes = 4 << 20;
};

class Server {
public:
    // Listens from now on. Health is NOT_SERVING while the engine refuses changes. `engine` must outlive this. Throws
    // std::runtime_error, with a message that names the path or address, when it cannot.
    Server(const ServerSettings& settings, Engine& engine);

    // Ends the connections. Calls that the engine has must be answered within a few seconds.
    ~Server();

private:
    struct Listener;
    Engine& engine_;
    std::unique_ptr<Listener> listener_;
};

}    // namespace reservationd
