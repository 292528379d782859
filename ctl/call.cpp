#include "ctl/call.h"

#include <absl/time/time.h>
#include <fmt/format.h>

#include <string>

namespace reservationctl {

Error ErrorOf(const absl::Status& status, const Client& client) {
    const std::string message(status.message());
    const std::string& address = client.address();
    switch (status.code()) {
        case absl::StatusCode::kUnavailable:
        case absl::StatusCode::kUnimplemented: {
            // gRPC does not tell a certificate that does not fit its key from a daemon that is not there.
            const char* const hint =
                client::IsTls(address) ? " (see also whether --tls-ca, --tls-cert and --tls-key fit together)" : "";
            return Error(ExitStatus::kNoDaemon, fmt::format("no daemon serves at {}: {}{}", address, message, hint));
        }
        case absl::StatusCode::kDeadlineExceeded:
            return Error(
                ExitStatus::kNoDaemon,
                fmt::format("{} has not answered within {} s (--timeout); a change may have been made all the same",
                            address, absl::ToInt64Seconds(absl::FromChrono(client.options().timeout))));
        case absl::StatusCode::kInvalidArgument:
            return UsageError("the daemon cannot read the request: " + message);
        case absl::StatusCode::kPermissionDenied:
            return Error(ExitStatus::kRefused, "not allowed: " + message);
        case absl::StatusCode::kResourceExhausted:
            return Error(ExitStatus::kRefused, "nothing has been changed: " + message);
        case absl::StatusCode::kOutOfRange:
            return Error(ExitStatus::kRefused, message);
        default:
            return Error(ExitStatus::kRefused, "the daemon has failed: " + message);
    }
}

}    // namespace reservationctl
