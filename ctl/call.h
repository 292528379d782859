// Calls of the daemon, whose failures end the program.

#pragma once

#include <absl/status/status.h>

#include <utility>

#include "client/client.h"
#include "ctl/errors.h"

namespace reservationctl {

namespace v1 = reservation::v1;
using client::Client;

// What a call that failed with this status ends the program with.
Error ErrorOf(const absl::Status& status, const Client& client);

// The reply, which may be a refusal by the manager. Throws ErrorOf() where there is none.
template <typename Request>
auto Call(const Client& client, const Request& request) {
    auto reply = client.Call(request);
    if (!reply.ok()) throw ErrorOf(reply.status(), client);
    return *std::move(reply);
}

// The same for a listing, of which it returns all pages in one.
template <typename Request>
auto CallForAllPages(const Client& client, const Request& request) {
    auto reply = client.CallForAllPages(request);
    if (!reply.ok()) throw ErrorOf(reply.status(), client);
    return *std::move(reply);
}

}    // namespace reservationctl
