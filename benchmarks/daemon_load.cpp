// Loads a running daemon with changes for a while, and tells how its rates hold up from beginning to end.
//
// Each client has a connection and a share of the reservations. The kinds create, delta and job run in phases: one
// action on every reservation, then the action that undoes it. All clients are in the same phase, so that a rate
// is that of one action. In the kind mixed, each client draws among the actions that are possible.

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/load_connection.h"
#include "benchmarks/load_reservation.h"

namespace {

using namespace load;

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr uint32_t kSetupInFlight = 32;

struct LoadOptions {
    std::string address;
    std::string kind = "create";
    bool session = false;    // rather than unary calls
    uint32_t clients = 1;
    uint32_t in_flight = 1;    // actions of one client
    uint32_t hcas = 16;    // of a reservation that is changed
    uint32_t others = 1000;    // reservations that stay as they are, of one HCA
    uint32_t reservations = 0;    // that are changed, by all clients together; 0: enough for all phases
    uint32_t seconds = 60;
    uint32_t interval = 10;    // seconds
};

// The actions of a kind in their turn; none for mixed.
std::vector<Action> PhasesOf(const std::string& kind) {
    if (kind == "create") return {Action::kCreate, Action::kDelete};
    if (kind == "delta") return {Action::kAdd, Action::kRemove};
    if (kind == "job") return {Action::kBegin, Action::kEnd};
    return {};
}

// How long actions took, in seconds.
using Latencies = std::map<Action, std::vector<float>>;

// One connection, and the reservations that it changes. For one thread at a time.
class LoadClient {
public:
    LoadClient(std::unique_ptr<LoadConnection> connection, uint32_t in_flight,
               std::vector<LoadReservation> reservations)
        : connection_(std::move(connection)), in_flight_(in_flight), reservations_(std::move(reservations)) {}

    // Does the action on each reservation for which it is possible. Throws LoadError when one fails, after the
    // answers to all that were sent.
    Latencies RunOnEach(Action action) {
        auto reservation = reservations_.begin();
        return Run([&]() -> std::optional<LoadStep> {
            while (reservation != reservations_.end() && !reservation->IsPossible(action)) ++reservation;
            if (reservation == reservations_.end()) return std::nullopt;
            return LoadStep{action, &*reservation++};
        });
    }

    // Does possible actions on one reservation after another until then. Throws as RunOnEach does.
    // REQUIRES: at least as many reservations as actions in flight.
    Latencies RunMixed(Clock::time_point end) {
        idle_.clear();
        for (LoadReservation& reservation : reservations_) idle_.push_back(&reservation);
        return Run([&]() -> std::optional<LoadStep> {
            if (Clock::now() >= end) return std::nullopt;
            LoadReservation* const reservation = idle_.front();
            idle_.pop_front();
            return LoadStep{Draw(*reservation), reservation};
        });
    }

private:
    Latencies Run(const std::function<std::optional<LoadStep>()>& take_next) {
        Latencies latencies;
        std::string failure;
        uint32_t pending = 0;
        const auto send_next = [&] {
            const std::optional<LoadStep> step = failure.empty() ? take_next() : std::nullopt;
            if (!step.has_value()) return false;
            connection_->Send(*step);
            ++pending;
            return true;
        };
        while (pending < in_flight_ && send_next()) continue;
        while (pending > 0) {
            const LoadAnswer answer = connection_->Receive();
            --pending;
            const auto [action, reservation] = answer.step;
            if (answer.failure.empty()) {
                reservation->Apply(action);
                latencies[action].push_back(static_cast<float>(answer.seconds));
            } else if (failure.empty()) {
                failure = absl::StrCat(NameOf(action), " ", reservation->key, ": ", answer.failure);
            }
            idle_.push_back(reservation);
            send_next();
        }
        if (!failure.empty()) throw LoadError(failure);
        return latencies;
    }

    // Half of the actions begin and end jobs, a quarter are deltas, and a quarter creates and deletes.
    Action Draw(const LoadReservation& reservation) {
        if (!reservation.exists) return Action::kCreate;
        if (reservation.has_job) return Action::kEnd;
        const auto number = random_() % 5;
        if (number == 0) return Action::kDelete;
        if (number <= 2) return Action::kBegin;
        return reservation.has_one_more ? Action::kRemove : Action::kAdd;
    }

    const std::unique_ptr<LoadConnection> connection_;
    const uint32_t in_flight_;
    std::vector<LoadReservation> reservations_;
    std::deque<LoadReservation*> idle_;    // of a mixed load: those with no action in flight
    std::minstd_rand random_;
};

// All clients at once.
class LoadClients {
public:
    explicit LoadClients(const LoadOptions& options) {
        const auto connect = options.session ? &ConnectForSession : &ConnectForCalls;
        const uint32_t count = options.reservations / options.clients;
        for (uint32_t i = 0; i < options.clients; ++i) {
            clients_.push_back(
                std::make_unique<LoadClient>(connect(options.address), options.in_flight,
                                             MakeReservations(options.others + i * count, count, options.hcas)));
        }
    }

    Latencies RunOnEach(Action action) {
        return Run([action](LoadClient& client) { return client.RunOnEach(action); });
    }
    Latencies RunMixed(Clock::time_point end) {
        return Run([end](LoadClient& client) { return client.RunMixed(end); });
    }

private:
    Latencies Run(const std::function<Latencies(LoadClient&)>& run) {
        std::vector<std::future<Latencies>> results;
        for (const auto& client : clients_) {
            results.push_back(std::async(std::launch::async, [&run, &client] { return run(*client); }));
        }
        Latencies all;
        for (std::future<Latencies>& result : results) {
            for (auto& [action, latencies] : result.get()) {
                all[action].insert(all[action].end(), latencies.begin(), latencies.end());
            }
        }
        return all;
    }

    std::vector<std::unique_ptr<LoadClient>> clients_;
};

// One action, or all of them, in one interval.
struct IntervalFigures {
    double seconds = 0;    // of the phases that began in the interval
    std::vector<float> latencies;    // seconds

    void Add(double phase_seconds, const std::vector<float>& of_phase) {
        seconds += phase_seconds;
        latencies.insert(latencies.end(), of_phase.begin(), of_phase.end());
    }

    double Rate() const { return static_cast<double>(latencies.size()) / seconds; }    // per second

    // The smallest latency, in milliseconds, that is not exceeded in this share of the cases. Reorders them.
    double Milliseconds(double share) {
        const auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(latencies.size())));
        const auto at = latencies.begin() + static_cast<std::ptrdiff_t>(rank) - 1;
        std::nth_element(latencies.begin(), at, latencies.end());
        return 1000.0 * double{*at};
    }
};

// Prints the figures of each interval when it is over.
class LoadReport {
public:
    explicit LoadReport(uint32_t interval) : interval_(interval) {
        absl::PrintF("%10s  %-8s %10s %10s %10s %10s %10s\n", "seconds", "", "count", "per s", "median ms", "99 % ms",
                     "max ms");
    }

    // `start` is when the phase began, in seconds since the start. REQUIRES: ascending from call to call.
    void Add(double start, double seconds, const Latencies& latencies) {
        const auto index = static_cast<uint32_t>(start / interval_);
        if (index != current_index_) Finish();
        current_index_ = index;
        std::vector<float> all;
        for (const auto& [action, of_action] : latencies) {
            current_[NameOf(action)].Add(seconds, of_action);
            all.insert(all.end(), of_action.begin(), of_action.end());
        }
        if (latencies.size() > 1) current_["total"].Add(seconds, all);
    }

    // Prints the last interval, and it beside the first one.
    void Conclude() {
        Finish();
        absl::PrintF("\n%10s  %-8s %10s %10s %10s %13s %12s\n", "", "", "first /s", "last /s", "last/first",
                     "first 99 % ms", "last 99 % ms");
        for (auto& [name, first] : first_) {
            const auto last = last_.find(name);
            if (last == last_.end()) continue;
            absl::PrintF("%10s  %-8s %10.0f %10.0f %10.2f %13.3f %12.3f\n", "", name, first.Rate(), last->second.Rate(),
                         last->second.Rate() / first.Rate(), first.Milliseconds(0.99), last->second.Milliseconds(0.99));
        }
    }

private:
    using FiguresByName = std::map<std::string, IntervalFigures>;

    void Finish() {
        const std::string time = absl::StrCat(current_index_ * interval_, "-", (current_index_ + 1) * interval_);
        for (auto& [name, figures] : current_) {
            absl::PrintF("%10s  %-8s %10d %10.0f %10.3f %10.3f %10.3f\n", time, name, figures.latencies.size(),
                         figures.Rate(), figures.Milliseconds(0.5), figures.Milliseconds(0.99),
                         figures.Milliseconds(1));
        }
        std::fflush(stdout);
        if (first_.empty()) first_ = current_;
        last_ = std::exchange(current_, {});
    }

    const uint32_t interval_;    // seconds
    uint32_t current_index_ = 0;
    FiguresByName current_;
    FiguresByName first_;
    FiguresByName last_;
};

void Measure(const LoadOptions& options, LoadClients& clients, LoadReport& report) {
    const std::vector<Action> phases = PhasesOf(options.kind);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::seconds(options.seconds);
    for (size_t turn = 0; Clock::now() < end; ++turn) {
        const Clock::time_point phase_start = Clock::now();
        const auto interval = (phase_start - start) / std::chrono::seconds(options.interval);
        const Clock::time_point interval_end = start + (interval + 1) * std::chrono::seconds(options.interval);
        const Latencies latencies =
            phases.empty() ? clients.RunMixed(interval_end) : clients.RunOnEach(phases[turn % phases.size()]);
        report.Add(Seconds(phase_start - start).count(), Seconds(Clock::now() - phase_start).count(), latencies);
    }
}

void Run(LoadOptions options) {
    const auto info = GetDaemonInfo(options.address);
    if (info.reservations() != 0 || info.jobs() != 0) throw LoadError("the daemon has reservations or jobs already");
    absl::PrintF("%s, %d clients by %s with %d in flight, %d reservations of %d HCAs beside %d of one, durability %s\n",
                 options.kind, options.clients, options.session ? "session" : "calls", options.in_flight,
                 options.reservations, options.hcas, options.others, info.durability());

    LoadClient others(ConnectForCalls(options.address), kSetupInFlight, MakeReservations(0, options.others, 1));
    others.RunOnEach(Action::kCreate);
    LoadClients clients(options);
    if (options.kind != "create") clients.RunOnEach(Action::kCreate);
    LoadReport report(options.interval);
    Measure(options, clients, report);
    report.Conclude();
    clients.RunOnEach(Action::kEnd);
    clients.RunOnEach(Action::kDelete);
    others.RunOnEach(Action::kDelete);
}

void AddOptions(CLI::App& app, LoadOptions& options) {
    const auto add = [&app](const char* name, uint32_t& value, uint32_t low, uint32_t high, const char* help) {
        app.add_option(name, value, help)->check(CLI::Range(low, high).description(""))->type_name("N");
    };
    app.add_option("--address", options.address, "the daemon's, unix:PATH; it must have no reservations")
        ->type_name("ADDRESS")
        ->required();
    app.add_option("--kind", options.kind,
                   "create: creates, then deletes; delta: an HCA added, then removed; job: begun, then ended;\n"
                   "mixed: all of them at once; default: create")
        ->check(CLI::IsMember({"create", "delta", "job", "mixed"}).description(""))
        ->type_name("KIND");
    app.add_flag("--session", options.session, "each client uses one Session stream instead of unary calls");
    add("--clients", options.clients, 1, 1024, "connections, 1 to 1024; default: 1");
    add("--in-flight", options.in_flight, 1, 4096,
        "actions of a client without an answer, 1 to 4096, with --session to 64; default: 1");
    add("--hcas", options.hcas, 1, 1'000'000, "HCAs of a reservation, 1 to 1000000; default: 16");
    add("--others", options.others, 0, 1'000'000,
        "reservations of one HCA that are there and not changed, 0 to 1000000; default: 1000");
    add("--reservations", options.reservations, 1, 1'000'000,
        "reservations that are changed, by all clients together; default: 200, or 8 for each action in flight");
    add("--seconds", options.seconds, 1, 1'000'000, "how long to measure; default: 60");
    add("--interval", options.interval, 1, 1'000'000, "seconds that a line of the output is about; default: 10");
}

// Fills in what was not given. Throws CLI::ValidationError when the options do not go together.
void Complete(LoadOptions& options) {
    const uint32_t in_flight = options.clients * options.in_flight;
    if (options.reservations == 0) options.reservations = std::max(200u, 8 * in_flight);
    if (options.reservations < in_flight) {
        throw CLI::ValidationError("--reservations", absl::StrCat(options.reservations, " are fewer than the ",
                                                                  in_flight, " actions in flight"));
    }
    if (options.session && options.in_flight > kMaxSessionInFlight) {
        throw CLI::ValidationError("--in-flight",
                                   absl::StrCat(options.in_flight, " is more than ", kMaxSessionInFlight));
    }
    if (options.seconds % options.interval != 0) {
        throw CLI::ValidationError(
            "--seconds", absl::StrCat(options.seconds, " is not a multiple of --interval, ", options.interval));
    }
}

}    // namespace

int main(int argc, char** argv) try {
    LoadOptions options;
    CLI::App app("Loads a running daemon with changes, and prints rates and latencies over time.", "daemon_load");
    app.footer(
        "Exit status: 0, or 1 when an action failed, 2 when an option cannot be used. A run that fails leaves its\n"
        "reservations.");
    AddOptions(app, options);
    try {
        app.parse(argc, argv);
        Complete(options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    Run(options);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "daemon_load: %s\n", error.what());
    return 1;
}
