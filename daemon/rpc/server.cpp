#include "daemon/rpc/server.h"

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

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "daemon/log_sink.h"
#include "daemon/rpc/service.h"

namespace reservationd {
namespace {

// What one client can make the daemon hold, together with the size of a request; and all of them.
constexpr int kMaxCallsPerConnection = 64;
constexpr size_t kMaxMemory = size_t{1} << 30;

// A client that does not answer for so long is taken for gone.
constexpr int kKeepaliveMillis = 30'000;
constexpr int kKeepaliveTimeoutMillis = 10'000;

constexpr std::chrono::seconds kShutdownTime{10};

void Fail(const std::string& path, const std::string& what) {
    throw std::system_error(errno, std::generic_category(), path + ": " + what);
}

void ForwardLog(gpr_log_func_args* record) {
    if (record->severity == GPR_LOG_SEVERITY_ERROR) WriteLog(kLogWarning, std::string("gRPC: ") + record->message);
}

// ---- Unix socket ----

// A socket file that nobody listens on is left from an earlier daemon, and is replaced. Anybody else's stays.
void CheckSocketIsFree(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error("socket " + path + ": the path is too long");
    path.copy(address.sun_path, path.size());
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) Fail(path, "socket");
    const bool is_in_use = connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(client);
    if (is_in_use) throw std::runtime_error("socket " + path + ": another process listens on it");
}

gid_t FindGroup(const std::string& name) {
    std::array<char, 16 * 1024> buffer{};
    group entry{};
    group* found = nullptr;
    getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (found == nullptr) throw std::runtime_error("socket-group " + name + ": there is no such group");
    return found->gr_gid;
}

void OpenSocketTo(const std::string& group_name, const std::string& path) {
    if (group_name.empty()) return;
    if (chown(path.c_str(), static_cast<uid_t>(-1), FindGroup(group_name)) != 0) Fail(path, "chown");
    if (chmod(path.c_str(), 0660) != 0) Fail(path, "chmod");
}

// ---- TCP ----

std::string ReadFile(const std::string& option, const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!(text << file.rdbuf())) throw std::runtime_error(option + " " + path + ": cannot be read, or is empty");
    return text.str();
}

std::shared_ptr<grpc::ServerCredentials> MutualTls(const ServerSettings& settings) {
    grpc::SslServerCredentialsOptions options(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
    options.pem_root_certs = ReadFile("tls-ca", settings.tls_ca);
    options.pem_key_cert_pairs.push_back(
        {ReadFile("tls-key", settings.tls_key), ReadFile("tls-cert", settings.tls_certificate)});
    return grpc::SslServerCredentials(options);
}

}    // namespace

struct Server::Listener {
    Service service;
    std::unique_ptr<grpc::Server> server;

    Listener(const ServerSettings& settings, Engine& engine)
        : service(engine, {settings.full_access_names, settings.read_only_names}) {}
};

Server::Server(const ServerSettings& settings, Engine& engine)
    : listener_(std::make_unique<Listener>(settings, engine)) {
    gpr_set_log_function(ForwardLog);
    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();

    grpc::ServerBuilder builder;
    builder.RegisterService(&listener_->service);
    builder.SetMaxReceiveMessageSize(settings.max_request_bytes);
    builder.SetResourceQuota(grpc::ResourceQuota("reservationd").Resize(kMaxMemory));
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, kMaxCallsPerConnection);
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveMillis);
    builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMillis);
    builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
    if (!settings.socket.empty()) {
        CheckSocketIsFree(settings.socket);
        builder.AddListeningPort("unix:" + settings.socket, grpc::InsecureServerCredentials());
    }
    if (!settings.tcp_address.empty()) builder.AddListeningPort(settings.tcp_address, MutualTls(settings));

    // The socket is born with mode 0600.
    const mode_t old_mask = umask(0177);
    listener_->server = builder.BuildAndStart();
    umask(old_mask);
    if (listener_->server == nullptr) {
        throw std::runtime_error("cannot listen on " + settings.socket +
                                 (settings.socket.empty() || settings.tcp_address.empty() ? "" : " and ") +
                                 settings.tcp_address);
    }
    OpenSocketTo(settings.socket_group, settings.socket);
}

Server::~Server() {
    if (listener_->server != nullptr) listener_->server->Shutdown(std::chrono::system_clock::now() + kShutdownTime);
}

}    // namespace reservationd
