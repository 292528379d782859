#include "daemon/rpc/acceptor.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace reservationd {

namespace {

constexpr int kSocketFlags = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
constexpr rlim_t kReservedDescriptors = 64;    // for files, and all else that is no connection
constexpr int kPauseMillis = 100;    // when nothing can be accepted

[[noreturn]] void ThrowErrno(const std::string& where) {
    throw std::system_error(errno, std::generic_category(), "cannot listen on " + where);
}

int Listen(const addrinfo& address, const std::string& where) {
    const int fd = socket(address.ai_family, kSocketFlags, address.ai_protocol);
    if (fd < 0) ThrowErrno(where);
    const int on = 1;
    if (address.ai_family != AF_UNIX) {
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));    // connections inherit it
    }
    if (address.ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    if (bind(fd, address.ai_addr, address.ai_addrlen) == 0 && listen(fd, SOMAXCONN) == 0) return fd;
    const int error = errno;
    close(fd);
    errno = error;
    ThrowErrno(where);
}

int MaxConnectionFd() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::system_error(errno, std::generic_category(), "getrlimit");
    const rlim_t max = std::min(limit.rlim_cur, rlim_t{1} << 30);
    return static_cast<int>(max - std::min(kReservedDescriptors, max / 2)) - 1;
}

}    // namespace

Acceptor::Acceptor() : stop_(eventfd(0, EFD_CLOEXEC)), max_fd_(MaxConnectionFd()) {
    if (stop_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Acceptor::~Acceptor() {
    eventfd_write(stop_, 1);
    if (thread_.joinable()) thread_.join();
    for (const Listener& listener : listeners_) close(listener.fd);
    if (!socket_path_.empty()) unlink(socket_path_.c_str());
    close(stop_);
}

void Acceptor::ListenOnUnix(const std::string& path, grpc::ServerBuilder& builder) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof(name.sun_path) - 1);
    addrinfo address{};
    address.ai_family = AF_UNIX;
    address.ai_addr = reinterpret_cast<sockaddr*>(&name);
    address.ai_addrlen = sizeof(name);
    unlink(path.c_str());
    const int fd = Listen(address, path);
    socket_path_ = path;
    listeners_.push_back({fd, builder.experimental().AddExternalConnectionAcceptor(
                                  grpc::ServerBuilder::experimental_type::ExternalConnectionType::FROM_FD,
                                  grpc::InsecureServerCredentials())});
}

void Acceptor::ListenOnTcp(const std::string& address, std::shared_ptr<grpc::ServerCredentials> credentials,
                           grpc::ServerBuilder& builder) {
    const size_t colon = address.rfind(':');
    std::string host = address.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error =
        getaddrinfo(host.empty() ? nullptr : host.c_str(), address.substr(colon + 1).c_str(), &hints, &found);
    if (error != 0) throw std::runtime_error("cannot listen on " + address + ": " + gai_strerror(error));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);
    const std::shared_ptr<grpc::experimental::ExternalConnectionAcceptor> server =
        builder.experimental().AddExternalConnectionAcceptor(
            grpc::ServerBuilder::experimental_type::ExternalConnectionType::FROM_FD, std::move(credentials));
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        listeners_.push_back({Listen(*one, address), server});
    }
}

void Acceptor::Start() { thread_ = std::thread(&Acceptor::Run, this); }

void Acceptor::Run() {
    std::vector<pollfd> polled = {{stop_, POLLIN, 0}};
    for (const Listener& listener : listeners_) polled.push_back({listener.fd, POLLIN, 0});
    while (true) {
        poll(polled.data(), polled.size(), -1);
        if (polled.front().revents != 0) return;
        bool is_exhausted = false;
        for (const Listener& listener : listeners_) is_exhausted |= !AcceptAll(listener);
        if (is_exhausted) poll(polled.data(), 1, kPauseMillis);
    }
}

// Accepts the connections that wait, and closes those that are too many. Returns false when the system has no more
// descriptors or memory for one.
bool Acceptor::AcceptAll(const Listener& listener) const {
    while (true) {
        const int fd = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) return false;
        if (fd < 0 && (errno == EAGAIN || errno == EINVAL || errno == EBADF)) return true;
        if (fd < 0) continue;    // a connection that has ended meanwhile
        // The number is the lowest free one, and so tells how many are open.
        if (fd > max_fd_) {
            close(fd);
            continue;
        }
        grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
        connection.listener_fd = listener.fd;
        connection.fd = fd;
        listener.server->HandleNewConnection(&connection);
    }
}

}    // namespace reservationd
