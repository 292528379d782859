// The reservation daemon, as the hooks and the service need it.

#pragma once

#include <absl/status/status.h>
#include <absl/status/statusor.h>
#include <absl/time/clock.h>
#include <absl/time/time.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "client/client.h"

namespace reservation_slurm {

namespace v1 = reservation::v1;

// Calls of the daemon that outlast its restart.
class Daemon {
public:
    explicit Daemon(client::ConnectionOptions connection) : connection_(std::move(connection)) {}

    // As client::Client, but tries again, until the deadline, while the daemon cannot be reached or has no room. After
    // DeadlineExceeded and Unavailable it may have carried the request out all the same.
    template <typename Request>
    auto Call(const Request& request, absl::Time deadline) {
        return Try([&](const client::Client& client) { return client.Call(request); }, deadline);
    }
    template <typename Request>
    auto CallForAllPages(const Request& request, absl::Time deadline) {
        return Try([&](const client::Client& client) { return client.CallForAllPages(request); }, deadline);
    }

private:
    static bool IsTemporary(const absl::Status& status) {
        return absl::IsUnavailable(status) || absl::IsResourceExhausted(status);
    }

    template <typename Run>
    auto Try(const Run& run, absl::Time deadline) -> decltype(run(std::declval<const client::Client&>())) {
        constexpr absl::Duration kPause = absl::Milliseconds(100);
        for (;;) {
            connection_.timeout = absl::ToChronoMilliseconds(std::max(deadline - absl::Now(), absl::Milliseconds(1)));
            // With a connection of its own: one that broke would wait longer before it is made again.
            const auto client = client::Client::Make(connection_);
            if (!client.ok()) return client.status();
            auto reply = run(*client);
            if (!IsTemporary(reply.status()) || absl::Now() + kPause > deadline) return reply;
            absl::SleepFor(kPause);
        }
    }

    client::ConnectionOptions connection_;
};

}    // namespace reservation_slurm
