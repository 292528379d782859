#include "daemon/rpc/server.h"

#include <google/protobuf/stubs/logging.h>
#include <grp.h>
#include <grpc/support/log.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/resource_quota.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "daemon/log_sink.h"
#include "daemon/rpc/acceptor.h"
#include "daemon/rpc/audit_log.h"
#include "daemon/rpc/service.h"
#include "daemon/rpc/stream_limit.h"
#include "daemon/rpc/tls.h"

namespace reservationd {
namespace {

// Requests under way fill at most kMaxCallsPerConnection * max_request_bytes for one connection, and kMaxMemoryBytes
// for all of them.
constexpr int kMaxShortCallsPerConnection = 64;    // beside its streams
constexpr int kMaxCallsPerConnection = StreamLimit::kMaxStreamsPerConnection + kMaxShortCallsPerConnection;
constexpr size_t kMaxMemoryBytes = size_t{1} << 30;

// A connection is pinged when it has been silent for the first time span, and closed when the second one passes without
// an answer.
constexpr int kKeepaliveMillis = 30'000;
constexpr int kKeepaliveTimeoutMillis = 10'000;

// A connection is closed when its client has not begun to speak gRPC after the first time span, or has had no call for
// the second one.
constexpr int kHandshakeTimeoutMillis = 10'000;
constexpr int kMaxIdleMillis = 300'000;

constexpr std::chrono::seconds kShutdownTimeout{1};    // for what clients do not end, and replies that they do not read

void ThrowErrno(const std::string& path, const std::string& what) {
    throw std::system_error(errno, std::generic_category(), path + ": " + what);
}

// ---- gRPC's own log records, which would go to standard error ----

void LogGrpc(gpr_log_func_args* record) {
    if (record->severity == GPR_LOG_SEVERITY_ERROR) WriteLog(kLogWarning, std::string("gRPC: ") + record->message);
}

// ---- Unix socket ----

// A socket file that nobody listens on is left from an earlier daemon, and is replaced. A listener whose queue is full
// (EAGAIN) is one all the same.
void CheckSocketIsFree(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error("socket " + path + ": the path is too long");
    path.copy(address.sun_path, path.size());
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (client < 0) ThrowErrno(path, "socket");
    const bool is_in_use =
        connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 || errno == EAGAIN;
    close(client);
    if (is_in_use) throw std::runtime_error("socket " + path + ": another process listens on it");
}

gid_t FindGroup(const std::string& name) {
    std::vector<char> buffer(16 * 1024);    // for the names of its members
    group entry{};
    group* found = nullptr;
    int error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    while (error == ERANGE) {
        buffer.resize(2 * buffer.size());
        error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    }
    if (error != 0) throw std::system_error(error, std::generic_category(), "socket-group " + name);
    if (found == nullptr) throw std::runtime_error("socket-group " + name + ": there is no such group");
    return found->gr_gid;
}

void GrantSocketToGroup(const std::string& group_name, const std::string& path) {
    if (group_name.empty()) return;
    if (chown(path.c_str(), static_cast<uid_t>(-1), FindGroup(group_name)) != 0) ThrowErrno(path, "chown");
    if (chmod(path.c_str(), 0660) != 0) ThrowErrno(path, "chmod");
}

}    // namespace

struct Server::Listener {
    AccessControl access;
    AuditLog audit;
    Service service;
    std::shared_ptr<TlsCredentials> tls;    // null: no TCP
    std::unique_ptr<grpc::Server> server;
    Acceptor acceptor;    // ends before the server that it hands connections to

    Listener(const ServerSettings& settings, Engine& engine)
        : access(settings.access), service(engine, access, audit) {}
};

Server::Server(const ServerSettings& settings, Engine& engine)
    : engine_(engine), listener_(std::make_unique<Listener>(settings, engine)) {
    gpr_set_log_function(LogGrpc);
    google::protobuf::SetLogHandler(nullptr);    // what it finds in a message, the client is told
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();

    grpc::ServerBuilder builder;
    builder.RegisterService(&listener_->service);
    builder.SetMaxReceiveMessageSize(settings.max_request_bytes);
    builder.SetResourceQuota(grpc::ResourceQuota("reservationd").Resize(kMaxMemoryBytes));
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, kMaxCallsPerConnection);
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveMillis);
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMillis);
    builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, kHandshakeTimeoutMillis);
    builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, kMaxIdleMillis);
    if (!settings.socket.empty()) {
        CheckSocketIsFree(settings.socket);
        const mode_t old_mask = umask(0177);    // of the socket: its owner's alone
        listener_->acceptor.ListenOnUnix(settings.socket, builder);
        umask(old_mask);
    }
    if (!settings.tcp_address.empty()) {
        listener_->tls =
            std::make_shared<TlsCredentials>(ReadTlsIdentity(settings.tls), listener_->access, listener_->audit);
        listener_->acceptor.ListenOnTcp(settings.tcp_address, listener_->tls, builder);
    }

    listener_->server = builder.BuildAndStart();
    if (listener_->server == nullptr) throw std::runtime_error("the server cannot be started");
    GrantSocketToGroup(settings.socket_group, settings.socket);
    listener_->acceptor.Start();
    engine_.NotifyOfWritability([health = listener_->server->GetHealthCheckService()](bool is_writable) {
        health->SetServingStatus(is_writable);
    });
}

Server::~Server() {
    engine_.NotifyOfWritability(nullptr);
    listener_->service.EndSessions();
    listener_->server->Shutdown(std::chrono::system_clock::now() + kShutdownTimeout);
}

void Server::Reconfigure(const ServerSettings& settings) {
    if (listener_->tls == nullptr) return;
    listener_->tls->Replace(ReadTlsIdentity(settings.tls));
    listener_->access.Replace(settings.access);
}

}    // namespace reservationd
