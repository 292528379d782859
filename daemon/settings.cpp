#include "daemon/settings.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <tuple>

namespace reservationd {
namespace {

constexpr char kDescription[] =
    "Decides which HCAs a job may use for in-network reduction trees, and serves reservationctl and other clients.";

constexpr char kFooter[] =
    "Each option can stand in the configuration file, without its dashes: max-jobs-per-hca = 4\n\n"
    "Signals: HUP reads the options again, TERM ends the daemon.\n"
    "Exit status: 0 when it was told to end, or the store is good; 1 when something failed, or the store is not good; "
    "2 "
    "when an option cannot be used.";

// Groups of the help text. The options of the first one can change while the daemon runs.
constexpr char kChangeable[] = "Options that SIGHUP reads again";
constexpr char kReservations[] = "Reservations";
constexpr char kClients[] = "Clients";

void AddChangeableOptions(CLI::App& app, Settings& settings) {
    OptionInfo& options = settings.engine.options;
    const std::map<std::string, uint32_t> no_limit = {{"none", std::numeric_limits<uint32_t>::max()}};
    app.add_flag("--reservation-mode,!--no-reservation-mode", options.reservation_mode,
                 "reservations are in use at all (default)")
        ->group(kChangeable);
    app.add_option("--max-jobs-per-hca", options.max_jobs_per_hca,
                   "most jobs on one HCA, which then admits no further one; 0: no cap")
        ->group(kChangeable);
    app.add_option("--reservation-default-num-trees", options.reservation_default_num_trees,
                   "trees limit of a reservation that gives none; 'none': no limit")
        ->transform(CLI::Transformer(no_limit))
        ->group(kChangeable);
    app.add_flag("--reservation-allow-guid-override", options.reservation_allow_guid_override,
                 "a request may take GUIDs of another reservation, which is then deleted whole")
        ->group(kChangeable);
    app.add_flag("--reservation-allow-ending-jobs", options.reservation_allow_ending_jobs,
                 "a change that takes HCAs from running jobs ends those jobs instead of being refused")
        ->group(kChangeable);
    app.add_option("--nodes", settings.engine.nodes_path,
                   "file that tells which node has which HCAs, so that requests can name nodes; empty: none")
        ->group(kChangeable);
    app.add_option("--log", settings.log, "where the log goes: stderr, syslog, or a file")->group(kChangeable);
    app.add_option("--log-level", settings.engine.log_level, "most verbose level of the log, 1 to 5")
        ->check(CLI::Range(1, 5))
        ->group(kChangeable);
}

void AddReservationOptions(CLI::App& app, EngineSettings& engine, std::string& durability) {
    app.add_option("--persistent-dir", engine.options.persistent_dir,
                   "directory of the reservation files and of the daemon's own store")
        ->group(kReservations);
    app.add_flag("--load-persistent-reservations,!--no-load-persistent-reservations",
                 engine.options.load_persistent_reservations,
                 "at the start, load the stored reservations (default); otherwise delete them unread")
        ->group(kReservations);
    app.add_flag("--reservation-auto-by-pkeys", engine.options.reservation_auto_by_pkeys,
                 "with reservation-mode: reservations follow the pkeys of the ports, and clients' changes are ignored")
        ->group(kReservations);
    app.add_option("--durability", durability, "what an answered change survives: the end of the process or machine")
        ->check(CLI::IsMember({"process", "machine"}))
        ->group(kReservations);
    app.add_option("--kept-events", engine.kept_events, "how many events a watching client can be behind")
        ->check(CLI::Range(uint64_t{1}, uint64_t{10'000'000}))
        ->group(kReservations);
}

// "host:port"; "[host]:port" where the host has colons.
std::string FaultOfAddress(const std::string& address) {
    const size_t colon = address.rfind(':');
    const std::string port = colon != std::string::npos ? address.substr(colon + 1) : "";
    uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    const bool is_port = error == std::errc() && end == port.data() + port.size() && number > 0;
    return address.empty() || is_port ? "" : address + " is not host:port";
}

void AddClientOptions(CLI::App& app, ServerSettings& server) {
    app.add_option("--socket", server.socket, "path of the Unix socket; empty: none")->group(kClients);
    app.add_option("--socket-group", server.socket_group, "group whose members may connect to the socket, too")
        ->group(kClients);
    CLI::Option* const tcp = app.add_option("--tcp", server.tcp_address, "host:port to listen on, with mutual TLS")
                                 ->check(FaultOfAddress)
                                 ->group(kClients);
    for (const auto& [name, value, what] :
         {std::tuple{"--tls-cert", &server.tls.certificate, "the daemon's certificate"},
          std::tuple{"--tls-key", &server.tls.key, "the key of that certificate"},
          std::tuple{"--tls-ca", &server.tls.authorities, "what signs clients' certificates"}}) {
        CLI::Option* const option = app.add_option(name, *value, std::string("PEM file: ") + what)->group(kChangeable);
        option->needs(tcp);
        tcp->needs(option);
    }
    app.add_option("--full-access", server.access.full_access_names,
                   "common names of the TLS clients that may do everything")
        ->needs(tcp)
        ->group(kChangeable);
    app.add_option("--read-only", server.access.read_only_names, "common names of the TLS clients that may only read")
        ->needs(tcp)
        ->group(kChangeable);
    app.add_option("--max-request-bytes", server.max_request_bytes, "largest request taken")
        ->check(CLI::Range(1024, 1 << 30))
        ->group(kClients);
}

std::map<std::string, OptionValue> ValuesOf(const CLI::App& app) {
    std::map<std::string, OptionValue> values;
    for (const CLI::Option* option : app.get_options()) {
        const std::string text =
            option->count() > 0 ? CLI::detail::join(option->results(), ",") : option->get_default_str();
        values[option->get_single_name()] = {text, option->get_group() == kChangeable};
    }
    return values;
}

void CheckTogether(const Settings& settings) {
    const AccessLists& access = settings.server.access;
    if (access.full_access_names.contains("") || access.read_only_names.contains("")) {
        throw SettingsError("--full-access, --read-only: a name is empty");
    }
    if (settings.server.socket.empty() && settings.server.tcp_address.empty()) {
        throw SettingsError("--socket is empty and --tcp is not given: no client could connect");
    }
}

}    // namespace

Settings ReadSettings(int argc, char** argv) {
    Settings settings;
    settings.engine.options.reservation_mode = true;
    settings.server.socket = "/run/reservationd/reservationd.sock";
    std::string durability = "process";

    CLI::App app(kDescription, "reservationd");
    app.footer(kFooter);
    app.option_defaults()->always_capture_default();
    app.set_version_flag("--version", RESERVATIOND_VERSION);
    app.set_config("--config", "/etc/reservationd.conf", "configuration file");
    app.add_flag("--check-store", settings.check_store,
                 "only tell what is wrong with the store in the persistent-dir, and end; no daemon may use it")
        ->configurable(false);
    app.allow_config_extras(CLI::config_extras_mode::error);
    AddChangeableOptions(app, settings);
    AddReservationOptions(app, settings.engine, durability);
    AddClientOptions(app, settings.server);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ConfigError& error) {
        throw SettingsError(app["--config"]->as<std::string>() + ": no such option, or not readable: " + error.what());
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) std::exit(app.exit(error));
        throw SettingsError(error.what());
    }
    settings.engine.durability = durability == "machine" ? Durability::kMachine : Durability::kProcess;
    settings.options = ValuesOf(app);
    CheckTogether(settings);
    return settings;
}

}    // namespace reservationd
