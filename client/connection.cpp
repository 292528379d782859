#include "client/connection.h"

#include <absl/strings/match.h>
#include <absl/strings/numbers.h>
#include <fmt/format.h>
#include <grpc/support/log.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <cstdint>
#include <utility>

#include "util/file.h"

namespace client {
namespace {

constexpr std::string_view kUnixScheme = "unix:";

struct PemFile {
    std::string_view option;
    const std::string& path;
    std::string content;
};

template <typename... Args>
absl::Status Invalid(fmt::format_string<Args...> format, Args&&... args) {
    return absl::InvalidArgumentError(fmt::format(format, std::forward<Args>(args)...));
}

absl::Status ValidateAddress(const std::string& address) {
    if (address == kUnixScheme) return Invalid("address '{}' names no socket", address);
    if (!IsTls(address)) return absl::OkStatus();
    const size_t colon = address.rfind(':');
    if (colon == address.npos || colon == 0 || address.find('/') != address.npos) {
        return Invalid("address '{}' is neither unix:PATH nor host:port", address);
    }
    uint32_t port = 0;
    if (absl::SimpleAtoi(address.substr(colon + 1), &port) && port >= 1 && port <= 0xffff) return absl::OkStatus();
    return Invalid("address '{}' has no port from 1 to 65535", address);
}

absl::Status ReadPem(PemFile& file) {
    absl::StatusOr<std::string> content = util::ReadWholeFile(file.path);
    if (!content.ok()) return Invalid("{}: {}", file.option, std::string(content.status().message()));
    if (!absl::StrContains(*content, "-----BEGIN ")) return Invalid("{}: {} is not a PEM file", file.option, file.path);
    file.content = *std::move(content);
    return absl::OkStatus();
}

absl::StatusOr<std::shared_ptr<grpc::ChannelCredentials>> MakeCredentials(const ConnectionOptions& options) {
    const std::string& address = options.addresses.front();
    PemFile files[] = {{"--tls-ca", options.tls_ca, ""},
                       {"--tls-cert", options.tls_certificate, ""},
                       {"--tls-key", options.tls_key, ""}};
    auto& [ca, certificate, key] = files;
    if (!IsTls(address)) {
        for (const PemFile& file : files) {
            if (!file.path.empty()) return Invalid("{}: {} is not reached over TLS", file.option, address);
        }
        return grpc::InsecureChannelCredentials();
    }
    for (PemFile& file : files) {
        if (file.path.empty()) return Invalid("{} is missing: {} is reached over TLS", file.option, address);
        if (const absl::Status status = ReadPem(file); !status.ok()) return status;
    }
    return grpc::SslCredentials(
        {.pem_root_certs = ca.content, .pem_private_key = key.content, .pem_cert_chain = certificate.content});
}

grpc::ChannelArguments MakeChannelArguments(const ConnectionOptions& options) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);    // a listing has no limit
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, static_cast<int>(options.keepalive.count()));
    // Without this, a watch on which nothing happens would be asked for two signs of life and no more.
    arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
    return arguments;
}

}    // namespace

bool IsTls(std::string_view address) { return !address.starts_with(kUnixScheme); }

absl::StatusOr<std::shared_ptr<grpc::Channel>> MakeChannel(const ConnectionOptions& options) {
    if (options.addresses.size() != 1) return absl::InvalidArgumentError("exactly one address is needed");
    const std::string& address = options.addresses.front();
    if (const absl::Status status = ValidateAddress(address); !status.ok()) return status;
    const auto credentials = MakeCredentials(options);
    if (!credentials.ok()) return credentials.status();
    gpr_set_log_function([](gpr_log_func_args*) {});
    return grpc::CreateCustomChannel(address, *credentials, MakeChannelArguments(options));
}

}    // namespace client
