#include "replay/target/daemon_target.h"

#include <grpc/support/log.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <utility>

#include "replay/file.h"
#include "replay/target/event_counter.h"
#include "replay/target/grpc_service.h"

namespace v1 = reservation::v1;

const bool kCanConnect = true;

namespace {

std::string ReadPem(const std::string& option, const std::string& path) {
    std::string text = ReadFile(path);
    if (text.find("-----BEGIN ") == text.npos) throw InputError(option + ": " + path + ": is not a PEM file");
    return text;
}

std::shared_ptr<grpc::ChannelCredentials> CredentialsFor(const Connection& connection) {
    const bool is_tls = !connection.address.starts_with("unix:");
    const std::pair<std::string, const std::string&> files[] = {
        {"--tls-ca", connection.tls_ca}, {"--tls-cert", connection.tls_certificate}, {"--tls-key", connection.tls_key}};
    for (const auto& [option, path] : files) {
        if (path.empty() != is_tls) continue;
        throw InputError(option + (is_tls ? " is missing: " + connection.address + " is reached over TLS"
                                          : ": " + connection.address + " is not reached over TLS"));
    }
    if (!is_tls) return grpc::InsecureChannelCredentials();
    return grpc::SslCredentials({.pem_root_certs = ReadPem("--tls-ca", connection.tls_ca),
                                 .pem_private_key = ReadPem("--tls-key", connection.tls_key),
                                 .pem_cert_chain = ReadPem("--tls-cert", connection.tls_certificate)});
}

grpc::ChannelArguments ChannelArguments() {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);    // a listing has no limit
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);    // a connection of its own for each client
    return arguments;
}

std::vector<std::unique_ptr<GrpcService>> MakeClients(const Connection& connection) {
    gpr_set_log_function([](gpr_log_func_args*) {});    // what matters is in the status of the call
    const auto credentials = CredentialsFor(connection);
    std::vector<std::unique_ptr<GrpcService>> clients;
    for (uint32_t i = 0; i < connection.clients; ++i) {
        const auto channel = grpc::CreateCustomChannel(connection.address, credentials, ChannelArguments());
        clients.push_back(std::make_unique<GrpcService>(connection.address, channel));
    }
    return clients;
}

OptionInfo OptionsOf(const v1::DaemonInfo& info) {
    OptionInfo options;
    options.persistent_dir = info.persistent_dir();
    options.max_jobs_per_hca = static_cast<uint16_t>(info.max_jobs_per_hca());
    options.reservation_mode = info.reservation_mode();
    options.load_persistent_reservations = info.load_persistent_reservations();
    options.reservation_allow_guid_override = info.reservation_allow_guid_override();
    options.reservation_allow_ending_jobs = info.reservation_allow_ending_jobs();
    options.reservation_auto_by_pkeys = info.reservation_auto_by_pkeys();
    options.reservation_default_num_trees = info.reservation_default_num_trees();
    return options;
}

class GrpcTarget : public DaemonTarget {
public:
    GrpcTarget(std::vector<std::unique_ptr<GrpcService>> clients, const v1::DaemonInfo& info)
        : clients_(std::move(clients)),
          start_(info),
          options_(OptionsOf(info)),
          events_(first(), info.last_sequence()) {}

    const OptionInfo& options() const override { return options_; }

    std::vector<ReservationService*> Clients() override {
        std::vector<ReservationService*> clients;
        for (const auto& client : clients_) clients.push_back(client.get());
        return clients;
    }

    Recorded recorded() const override {
        const v1::DaemonInfo info = first().GetDaemonInfo();
        events_.WaitFor(info.last_sequence());
        Recorded recorded = events_.recorded();
        recorded.failed_requests = info.failed_reservation_requests() - start_.failed_reservation_requests();
        return recorded;
    }

    std::vector<std::string> FailedChecks() const override {
        const v1::DaemonInfo info = first().GetDaemonInfo();
        events_.WaitFor(info.last_sequence());
        std::vector<std::string> failed;
        for (const std::string& key : first().ReservationKeys()) failed.push_back("reservation " + key + " is left");
        ExpectNone(failed, info.reserved_hcas(), "HCAs are still reserved");
        ExpectNone(failed, first().NumJobs(), "jobs still run");
        ExpectNone(failed, events_.num_ended_jobs(), "jobs were ended by the manager");
        return failed;
    }

private:
    const GrpcService& first() const { return *clients_.front(); }

    const std::vector<std::unique_ptr<GrpcService>> clients_;
    const v1::DaemonInfo start_;    // before the replay
    const OptionInfo options_;
    mutable EventCounter events_;
};

}    // namespace

std::unique_ptr<DaemonTarget> ConnectToDaemon(const Connection& connection) try {
    auto clients = MakeClients(connection);
    const v1::DaemonInfo info = clients.front()->GetDaemonInfo();
    const std::string daemon = connection.address + ": the daemon ";
    if (!info.reservation_mode()) throw InputError(daemon + "runs without --reservation-mode");
    if (info.reservations() != 0 || info.jobs() != 0) {
        throw InputError(daemon + "has " + std::to_string(info.reservations()) + " reservations and " +
                         std::to_string(info.jobs()) + " jobs already, and a replay begins with none");
    }
    return std::make_unique<GrpcTarget>(std::move(clients), info);
} catch (const CallError& error) {
    throw InputError(error.what());
}
