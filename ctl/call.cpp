#include "ctl/call.h"

#include <absl/strings/match.h>
#include <absl/time/time.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string>

namespace reservationctl {
namespace {

// Both go by gRPC's words: its status says Unavailable, or ResourceExhausted, for other reasons, too.

// Somebody listens at the address and no TLS connection comes about: one side does not trust the other's certificate,
// or it is for another host, or our certificate and key are no pair.
bool IsTlsFailure(const std::string& message) {
    constexpr const char* kSigns[] = {"Ssl handshake failed", "is not in peer certificate", "Socket closed",
                                      "Connection reset by peer", "Broken pipe"};
    const bool is_not_connected = absl::StartsWith(message, "failed to connect to all addresses");
    return absl::StartsWith(message, "empty address list") ||
           (is_not_connected && std::any_of(std::begin(kSigns), std::end(kSigns),
                                            [&](const char* sign) { return absl::StrContains(message, sign); }));
}

bool IsTooLarge(const std::string& message) { return absl::StrContains(message, "message larger than max"); }

Error UnreachableError(const std::string& message, const std::string& address) {
    if (client::IsTls(address) && IsTlsFailure(message)) {
        return Error(ExitStatus::kNotAllowed,
                     fmt::format("no TLS connection to {}: {} (see whether --tls-ca, --tls-cert and --tls-key fit "
                                 "together, and what the daemon's certificates are)",
                                 address, message));
    }
    if (!client::IsTls(address) && absl::EndsWith(message, "Permission denied")) {
        return Error(ExitStatus::kNotAllowed, fmt::format("not allowed to use {}: {}", address, message));
    }
    return Error(ExitStatus::kNoDaemon, fmt::format("no daemon serves at {}: {}", address, message));
}

}    // namespace

Error ErrorOf(const absl::Status& status, const Client& client) {
    const std::string message(status.message());
    const std::string& address = client.address();
    switch (status.code()) {
        case absl::StatusCode::kUnavailable:
        case absl::StatusCode::kUnimplemented:
            return UnreachableError(message, address);
        case absl::StatusCode::kDeadlineExceeded:
            return Error(
                ExitStatus::kNoDaemon,
                fmt::format("{} has not answered within {} s (--timeout); a change may have been made all the same",
                            address, absl::ToInt64Seconds(absl::FromChrono(client.options().timeout))));
        case absl::StatusCode::kInvalidArgument:
            return UsageError("the daemon cannot read the request: " + message);
        case absl::StatusCode::kPermissionDenied:
            return Error(ExitStatus::kNotAllowed, "not allowed: " + message);
        case absl::StatusCode::kResourceExhausted:
            if (IsTooLarge(message)) {
                return Error(ExitStatus::kRefused, "nothing has been changed: " + message +
                                                       "; the daemon's option max-request-bytes says how large");
            }
            return Error(ExitStatus::kTryLater, "nothing has been changed, try again later: " + message);
        case absl::StatusCode::kAborted:
            return Error(ExitStatus::kChangedMeanwhile,
                         "something has changed meanwhile: nothing has been done; run it again (" + message + ")");
        case absl::StatusCode::kOutOfRange:
            return Error(ExitStatus::kRefused, message);
        default:
            return Error(ExitStatus::kRefused, "the daemon has failed: " + message);
    }
}

}    // namespace reservationctl
