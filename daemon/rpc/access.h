// Who may call what.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>
#include <grpc/grpc_security.h>
#include <grpcpp/server_context.h>

#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "util/mutex.h"

namespace reservationd {

// Common names of the client certificates that may do everything, and of those that may only read.
struct AccessLists {
    std::set<std::string> full_access_names;
    std::set<std::string> read_only_names;
};

// Before the name of a method of the reservation service.
inline constexpr char kServicePrefix[] = "/reservation.v1.ReservationService/";

enum class Permission { kRead, kChange };

// What a call of this method, "/package.Service/Method", takes, unless it is a dry run: that takes kRead. A method that
// the server does not know takes kChange.
Permission PermissionFor(std::string_view method);

// A client, as its connection shows it.
struct Client {
    bool is_local = false;    // on the Unix socket
    std::string common_name;    // of its certificate; empty: there is none
};

Client ClientOf(grpc::CallbackServerContext& context);

// The common name of the certificate that a connection was authenticated with; empty when there is none.
std::string CommonName(const grpc_auth_context* context);

// On the Unix socket everybody may do everything: the socket's mode says who can connect. Over TCP the lists decide.
// For any thread.
class AccessControl {
public:
    explicit AccessControl(AccessLists lists) : lists_(std::move(lists)) {}

    // OK, or PERMISSION_DENIED with a message that names the client.
    absl::Status Check(const Client& client, Permission permission) const;

    // For the checks from now on.
    void Replace(AccessLists lists);

private:
    mutable util::Mutex mutex_;
    AccessLists lists_ ABSL_GUARDED_BY(mutex_);
};

}    // namespace reservationd
