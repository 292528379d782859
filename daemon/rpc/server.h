// Listens for clients, on a Unix socket and with mutual TLS on TCP, and bounds what they can make the daemon hold.

#pragma once

#include <memory>
#include <string>

#include "daemon/engine/engine.h"
#include "daemon/rpc/access.h"
#include "daemon/rpc/tls.h"

namespace reservationd {

struct ServerSettings {
    std::string socket;    // path; empty: no Unix socket
    std::string socket_group;    // name; who else may connect to the socket; empty: its owner alone
    std::string tcp_address;    // "host:port"; empty: no TCP
    TlsFiles tls;    // for TCP
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

    // Reads the certificates again, for later connections, and lets the access lists hold for all later calls, also of
    // sessions and watches that are open. The rest can only be changed by a restart. Throws std::runtime_error, with a
    // message that names the file, and changes nothing, when a file cannot be used.
    void Reconfigure(const ServerSettings& settings);

private:
    struct Listener;
    Engine& engine_;
    std::unique_ptr<Listener> listener_;
};

}    // namespace reservationd
