#include "replay/target/daemon_target.h"

#include <absl/strings/str_cat.h>

#include <chrono>
#include <utility>
#include <vector>

#include "client/client.h"
#include "replay/input_error.h"
#include "replay/target/daemon_client.h"
#include "replay/target/event_counter.h"

namespace replay {

namespace v1 = client::v1;

const bool kCanConnect = true;

namespace {

constexpr std::chrono::seconds kCallTimeout{60};
constexpr uint32_t kMaxClients = 1024;    // each works in a thread of its own

// So many clients for each connection as it has operations in flight; more than one use a session.
std::vector<std::unique_ptr<DaemonClient>> MakeClients(const ConnectOptions& options) {
    const client::ConnectionOptions connection{.addresses = {options.address},
                                               .tls_ca = options.tls_ca,
                                               .tls_certificate = options.tls_certificate,
                                               .tls_key = options.tls_key,
                                               .timeout = kCallTimeout};
    if (options.clients * options.in_flight > kMaxClients) {
        throw InputError(absl::StrCat("--clients times --in-flight is more than ", kMaxClients));
    }
    std::vector<std::unique_ptr<DaemonClient>> clients;
    for (uint32_t i = 0; i < options.clients; ++i) {
        const auto shared = std::make_shared<client::Client>(ValueOrInputError(client::Client::Make(connection)));
        const std::shared_ptr<client::Session> session = options.in_flight > 1 ? shared->OpenSession() : nullptr;
        for (uint32_t j = 0; j < options.in_flight; ++j) {
            clients.push_back(std::make_unique<DaemonClient>(shared, session));
        }
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
    // `start` is the daemon's state before the replay.
    GrpcTarget(std::vector<std::unique_ptr<DaemonClient>> clients, const v1::DaemonInfo& start)
        : clients_(std::move(clients)),
          failed_requests_at_start_(start.failed_reservation_requests()),
          options_(OptionsOf(start)),
          events_(first(), start.last_sequence()) {}

    const OptionInfo& options() const override { return options_; }

    std::vector<TargetClient*> Clients() override {
        std::vector<TargetClient*> clients;
        for (const auto& client : clients_) clients.push_back(client.get());
        return clients;
    }

    ManagerCounters counters() const override {
        const v1::DaemonInfo info = first().GetDaemonInfo();
        events_.WaitFor(info.last_sequence());
        ManagerCounters counters = events_.counters();
        counters.failed_requests = info.failed_reservation_requests() - failed_requests_at_start_;
        return counters;
    }

    std::vector<std::string> FailedChecks() const override {
        const v1::DaemonInfo info = first().GetDaemonInfo();
        events_.WaitFor(info.last_sequence());
        std::vector<std::string> failed;
        for (const std::string& key : first().ReservationKeys()) {
            failed.push_back(absl::StrCat("reservation ", key, " is left"));
        }
        ExpectNone(failed, info.reserved_hcas(), "HCAs are still reserved");
        ExpectNone(failed, info.jobs(), "jobs still run");
        ExpectNone(failed, events_.num_ended_jobs(), "jobs were ended by the manager");
        return failed;
    }

private:
    const DaemonClient& first() const { return *clients_.front(); }

    const std::vector<std::unique_ptr<DaemonClient>> clients_;
    const uint64_t failed_requests_at_start_;
    const OptionInfo options_;
    mutable EventCounter events_;    // last: it uses a client
};

// As GetDaemonInfo, but throws InputError.
v1::DaemonInfo GetInitialInfo(const DaemonClient& client) try {
    return client.GetDaemonInfo();
} catch (const std::runtime_error& error) {
    throw InputError(error.what());
}

}    // namespace

std::unique_ptr<DaemonTarget> ConnectToDaemon(const ConnectOptions& options) {
    auto clients = MakeClients(options);
    const v1::DaemonInfo info = GetInitialInfo(*clients.front());
    if (!info.reservation_mode()) {
        throw InputError(absl::StrCat(options.address, ": the daemon runs without --reservation-mode"));
    }
    if (info.reservations() != 0 || info.jobs() != 0) {
        throw InputError(absl::StrCat(options.address, ": the daemon has ", info.reservations(), " reservations and ",
                                      info.jobs(), " jobs already, and a replay begins with none"));
    }
    return std::make_unique<GrpcTarget>(std::move(clients), info);
}

}    // namespace replay
