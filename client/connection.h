// The connection to a daemon: its address, TLS, and what both ends expect of it.

#pragma once

#include <absl/status/statusor.h>
#include <grpcpp/channel.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct ConnectionOptions {
    std::vector<std::string> addresses;    // unix:PATH, or host:port with mutual TLS; exactly one for now

    // Paths of PEM files, all or none; empty: not given. Messages name them --tls-ca, --tls-cert and --tls-key.
    std::string tls_ca;    // what signs the daemon's certificate
    std::string tls_certificate;    // ours
    std::string tls_key;    // of our certificate

    std::chrono::milliseconds timeout{30'000};    // of each call that has one reply

    // How often a peer is asked for a sign of life during a call. One that gives none for 20 s is taken for gone. A
    // daemon drops clients that ask more often than every 5 minutes.
    std::chrono::milliseconds keepalive{6 * 60 * 1000};
};

// Whether the daemon is reached over TLS.
bool IsTls(std::string_view address);

// A channel with a connection of its own, which is made with the first call, and again after it broke. InvalidArgument,
// with a message that names the address, option or file at fault, when the options do not fit together or a file cannot
// be used. Turns off gRPC's own log: what matters is in the status of a call.
absl::StatusOr<std::shared_ptr<grpc::Channel>> MakeChannel(const ConnectionOptions& options);

}    // namespace client
