// Accepts connections, fewer than the process has descriptors for.

#pragma once

#include <grpcpp/server_builder.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace reservationd {

// gRPC's own listener is closed for good when the process runs out of descriptors.
class Acceptor {
public:
    Acceptor();
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;
    ~Acceptor();    // listens no more

    // Both listen, and hand connections to `builder`'s server from Start on. They throw std::runtime_error when they
    // cannot. A file at the path is replaced. The address is "host:port"; all that the host's name stands for is
    // listened on.
    void ListenOnUnix(const std::string& path, grpc::ServerBuilder& builder);
    void ListenOnTcp(const std::string& address, std::shared_ptr<grpc::ServerCredentials> credentials,
                     grpc::ServerBuilder& builder);

    // REQUIRES: the server has been started.
    void Start();

private:
    struct Listener {
        int fd;
        std::shared_ptr<grpc::experimental::ExternalConnectionAcceptor> server;
    };

    void Run();
    bool AcceptAll(const Listener& listener) const;

    std::vector<Listener> listeners_;
    std::string socket_path_;    // empty: none
    const int stop_;    // readable when the thread is to end
    int max_fd_ = 0;    // of a connection
    std::thread thread_;
};

}    // namespace reservationd
