#include "ctl/client.h"

#include <grpc/support/log.h>
#include <grpcpp/grpcpp.h>

#include <string_view>

#include "ctl/errors.h"
#include "ctl/file.h"
#include "ctl/guid_list.h"
#include "reservation/v1/reservation.grpc.pb.h"

namespace reservationctl {

namespace v1 = reservation::v1;

namespace {

constexpr std::string_view kUnixScheme = "unix:";

// A daemon takes pings that come more often than every five minutes for an attack.
constexpr int kKeepaliveMillis = 6 * 60 * 1000;

std::string ReadPem(const std::string& option, const std::string& path) {
    std::string text = ReadFile(path);
    if (text.find("-----BEGIN ") == text.npos) throw UsageError(option + ": " + path + " is not a PEM file");
    return text;
}

void CheckHostAndPort(const std::string& address) {
    const size_t colon = address.rfind(':');
    if (colon == address.npos || colon == 0 || address.find('/') != address.npos) {
        throw UsageError("--address: '" + address + "' is neither unix:PATH nor host:port");
    }
    ParseNumber(address.substr(colon + 1), 1, 0xffff, "--address: the port of '" + address + "'");
}

std::shared_ptr<grpc::ChannelCredentials> CredentialsFor(const Connection& connection) {
    const std::string& address = connection.address;
    const std::pair<const char*, const std::string*> files[] = {{"--tls-ca", &connection.tls_ca},
                                                                {"--tls-cert", &connection.tls_certificate},
                                                                {"--tls-key", &connection.tls_key}};
    if (address.starts_with(kUnixScheme)) {
        if (address == kUnixScheme) throw UsageError("--address: '" + address + "' names no socket");
        for (const auto& [option, path] : files) {
            if (!path->empty()) throw UsageError(option + std::string(": ") + address + " is not reached over TLS");
        }
        return grpc::InsecureChannelCredentials();
    }
    CheckHostAndPort(address);
    for (const auto& [option, path] : files) {
        if (path->empty()) throw UsageError(option + std::string(" is missing: ") + address + " is reached over TLS");
    }
    return grpc::SslCredentials({ReadPem("--tls-ca", connection.tls_ca), ReadPem("--tls-key", connection.tls_key),
                                 ReadPem("--tls-cert", connection.tls_certificate)});
}

grpc::ChannelArguments ChannelArguments() {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);    // a listing has no limit
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveMillis);
    return arguments;
}

// gRPC does not tell a certificate that does not fit its key from a daemon that is not there.
std::string HintFor(const std::string& address) {
    return address.starts_with(kUnixScheme) ? ""
                                            : " (see also whether --tls-ca, --tls-cert and --tls-key fit together)";
}

[[noreturn]] void Throw(const grpc::Status& status, const std::string& address, std::chrono::seconds timeout) {
    const std::string& message = status.error_message();
    switch (status.error_code()) {
        case grpc::StatusCode::UNAVAILABLE:
        case grpc::StatusCode::UNIMPLEMENTED:
            throw Error(ExitStatus::kNoDaemon, "no daemon serves at " + address + ": " + message + HintFor(address));
        case grpc::StatusCode::DEADLINE_EXCEEDED:
            throw Error(ExitStatus::kNoDaemon, address + " has not answered within " + std::to_string(timeout.count()) +
                                                   " s (--timeout); a change may have been made all the same");
        case grpc::StatusCode::INVALID_ARGUMENT:
            throw UsageError("the daemon cannot read the request: " + message);
        case grpc::StatusCode::PERMISSION_DENIED:
            throw Error(ExitStatus::kRefused, "not allowed: " + message);
        case grpc::StatusCode::RESOURCE_EXHAUSTED:
            throw Error(ExitStatus::kRefused, "nothing has been changed: " + message);
        case grpc::StatusCode::OUT_OF_RANGE:
            throw Error(ExitStatus::kRefused, message);
        default:
            throw Error(ExitStatus::kRefused, "the daemon has failed: " + message);
    }
}

}    // namespace

struct Client::Stub {
    std::unique_ptr<v1::ReservationService::Stub> service;
};

Client::Client(const Connection& connection) : address_(connection.address), timeout_(connection.timeout) {
    gpr_set_log_function([](gpr_log_func_args*) {});    // what matters is in the status of the call
    const auto channel = grpc::CreateCustomChannel(address_, CredentialsFor(connection), ChannelArguments());
    stub_ = std::make_unique<Stub>(Stub{v1::ReservationService::NewStub(channel)});
}

Client::~Client() = default;

template <typename Reply, typename Method, typename Request>
Reply Client::CallMethod(Method method, const Request& request) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + timeout_);
    Reply reply;
    const grpc::Status status = (stub_->service.get()->*method)(&context, request, &reply);
    if (!status.ok()) Throw(status, address_, timeout_);
    return reply;
}

v1::ReservationReply Client::Call(const v1::CreateReservationRequest& request) {
    return CallMethod<v1::ReservationReply>(&v1::ReservationService::Stub::CreateReservation, request);
}

v1::ReservationReply Client::Call(const v1::UpdateReservationRequest& request) {
    return CallMethod<v1::ReservationReply>(&v1::ReservationService::Stub::UpdateReservation, request);
}

v1::ReservationReply Client::Call(const v1::DeleteReservationRequest& request) {
    return CallMethod<v1::ReservationReply>(&v1::ReservationService::Stub::DeleteReservation, request);
}

v1::ReservationReply Client::Call(const v1::GetReservationsRequest& request) {
    return CallMethod<v1::ReservationReply>(&v1::ReservationService::Stub::GetReservations, request);
}

v1::BeginJobReply Client::Call(const v1::BeginJobRequest& request) {
    return CallMethod<v1::BeginJobReply>(&v1::ReservationService::Stub::BeginJob, request);
}

v1::EndJobReply Client::Call(const v1::EndJobRequest& request) {
    return CallMethod<v1::EndJobReply>(&v1::ReservationService::Stub::EndJob, request);
}

v1::ListJobsReply Client::Call(const v1::ListJobsRequest& request) {
    return CallMethod<v1::ListJobsReply>(&v1::ReservationService::Stub::ListJobs, request);
}

v1::ReportPortReply Client::Call(const v1::ReportPortRequest& request) {
    return CallMethod<v1::ReportPortReply>(&v1::ReservationService::Stub::ReportPort, request);
}

v1::DaemonInfo Client::Call(const v1::GetDaemonInfoRequest& request) {
    return CallMethod<v1::DaemonInfo>(&v1::ReservationService::Stub::GetDaemonInfo, request);
}

void Client::Watch(const v1::WatchRequest& request, const std::function<bool(const v1::Event&)>& take) {
    grpc::ClientContext context;
    const auto reader = stub_->service->Watch(&context, request);
    for (v1::Event event; reader->Read(&event);) {
        if (take(event)) continue;
        context.TryCancel();
        return;
    }
    Throw(reader->Finish(), address_, timeout_);
}

}    // namespace reservationctl
