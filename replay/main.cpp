// Parses the options of reservation-replay and runs it.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <set>
#include <string>

#include "replay/input_error.h"
#include "replay/run/run_replay.h"
#include "replay/terminal.h"
#include "util/limits.h"

namespace {

using namespace replay;

constexpr const char* kSettingsGroup = "Settings";

constexpr const char* kDescription =
    "Replays a job trace in the Standard Workload Format through the reservation manager.\n"
    "Each job takes the lowest free HCAs, first come first served. A tenant (--per) has a reservation of the HCAs of "
    "its\n"
    "running jobs: it grows when a job starts and shrinks when a job ends. The report goes to standard output.";

constexpr const char* kFooter =
    "Exit status: 0 when all went as it must, 1 when something is left or went wrong, 2 when the trace, an option or\n"
    "the daemon cannot be used.\n\n"
    "Examples:\n"
    "  reservation-replay --svg chart.svg examples/nasa-ipsc-1993-week.swf\n"
    "  reservation-replay --auto-by-pkeys --per group examples/nasa-ipsc-1993-week.swf\n"
    "  reservation-replay --persistent-dir state --stop-after 800 examples/nasa-ipsc-1993-week.swf\n"
    "  reservation-replay --persistent-dir state --resume examples/nasa-ipsc-1993-week.swf";

// Accepts whole numbers from `low` to `high`, which the option's help names.
template <typename Number>
CLI::Validator Between(Number low, Number high) {
    return CLI::Range(low, high).description("");
}

void AddSettings(CLI::App& app, ReplaySettings& settings) {
    const auto add_number = [&app](const char* name, auto& value, const char* help, const CLI::Validator& range) {
        app.add_option(name, value, help)->check(range)->type_name("N")->group(kSettingsGroup);
    };
    add_number("--hcas", settings.hcas,
               "HCAs of the fabric, one port each, 1 to 1000000; default: the trace's MaxNodes, else as many as its\n"
               "MaxProcs or its widest job need",
               Between(1u, kMaxHcas));
    add_number("--procs-per-hca", settings.procs_per_hca,
               "processors of the trace behind one HCA, 1 to 1000000; default: 1", Between(1u, 1'000'000u));
    app.add_option("--per", settings.per, "who is a tenant: each user (default), group or job of the trace")
        ->check(CLI::IsMember({"user", "group", "job"}).description(""))
        ->type_name("TENANT")
        ->group(kSettingsGroup);
    app.add_flag("--auto-by-pkeys", settings.auto_by_pkeys,
                 "leave the reservations to the manager: ports only report the pkeys of the jobs on them")
        ->group(kSettingsGroup);
    add_number("--planes", settings.planes, "planes of a job's trees, 1 to 255; default: 1",
               Between(1u, util::kMaxPlanes));
    add_number("--trees", settings.trees, "trees of a job in each plane, 1 to 255; default: 1",
               Between(1u, util::kMaxTrees));
    add_number("--num-trees", settings.num_trees,
               "trees that a reservation's jobs may use together in each plane, 0 to 24575; 24575 means no limit;\n"
               "default: as --default-num-trees",
               Between(0u, util::kNoTreesLimit));
    add_number("--default-num-trees", settings.default_num_trees,
               "the same for reservations that are given no --num-trees, and for automatic ones; default: no limit",
               Between(0u, util::kNoTreesLimit));
    add_number("--max-jobs-per-hca", settings.max_jobs_per_hca,
               "jobs that may run on one HCA at once, 1 to 65535; default: 0, no limit", Between(0u, 0xffffu));
    add_number("--log-level", settings.log_level, "most verbose level of the log records to count, 1 to 5; default: 3",
               Between(1, 5));
}

void AddRunOptions(CLI::App& app, RunOptions& options) {
    app.add_option("TRACE.swf", options.trace_path, "the job trace")->type_name("")->required();
    app.add_flag("--json", options.json, "report as JSON, for programs");
    app.add_option("--svg", options.svg_path, "draw HCAs, reservations and trees in use over time into this file")
        ->type_name("FILE");
    CLI::Option* dir =
        app.add_option(
               "--persistent-dir", options.persistent_dir,
               "directory of the reservation files, made when it is missing; default: a temporary one in TMPDIR,\n"
               "removed at the end")
            ->type_name("DIR")
            ->check([](const std::string& path) { return path.empty() ? "is empty" : ""; });
    app.add_option("--stop-after", options.stop_after,
                   "stop when this many jobs have started or been refused, with jobs running, and leave the directory")
        ->check(Between(1u, 0xffffffffu))
        ->type_name("JOBS");
    app.add_flag("--resume", options.resume,
                 "go on with the replay that was stopped in --persistent-dir, in this new process, with its settings")
        ->needs(dir);
}

void AddConnectOptions(CLI::App& app, ConnectOptions& connection) {
    if (!kCanConnect) return;
    CLI::Option* connect =
        app.add_option("--connect", connection.address,
                       "replay through the daemon at this address, unix:PATH or host:port; it must have\n"
                       "no reservations, and its own options hold")
            ->type_name("ADDRESS")
            ->check([](const std::string& address) { return address.empty() ? "is empty" : ""; });
    for (const char* option :
         {"--persistent-dir", "--stop-after", "--resume", "--log-level", "--default-num-trees", "--max-jobs-per-hca"}) {
        connect->excludes(app.get_option(option));
    }
    const auto add = [&](const char* name, auto& value, const char* help) {
        return app.add_option(name, value, help)->needs(connect);
    };
    add("--clients", connection.clients, "connections that work at once, 1 to 1024; default: 1")
        ->check(Between(1u, 1024u))
        ->type_name("N");
    add("--in-flight", connection.in_flight,
        "operations that each connection has under way at once, through one session where they are more than 1,\n"
        "1 to 64; default: 1")
        ->check(Between(1u, 64u))
        ->type_name("N");
    add("--tls-ca", connection.tls_ca, "PEM file: the authority that signed the daemon's certificate")
        ->type_name("FILE");
    add("--tls-cert", connection.tls_certificate, "PEM file: the certificate to show to the daemon")->type_name("FILE");
    add("--tls-key", connection.tls_key, "PEM file: the key of that certificate")->type_name("FILE");
}

// The names of the settings on the command line, as ReplaySettings names them.
std::set<std::string> GivenSettings(const CLI::App& app) {
    std::set<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_group() != kSettingsGroup || option->count() == 0) continue;
        std::string name = option->get_single_name();
        std::replace(name.begin(), name.end(), '-', '_');
        names.insert(name);
    }
    return names;
}

}    // namespace

int main(int argc, char** argv) try {
    RunOptions options;
    CLI::App app(kDescription, "reservation-replay");
    app.footer(kFooter);
    app.set_version_flag("--version", REPLAY_VERSION);
    AddRunOptions(app, options);
    AddSettings(app, options.settings);
    AddConnectOptions(app, options.connection);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        throw InputError(error.what());
    }
    options.given_settings = GivenSettings(app);
    return RunReplay(options);
} catch (const InputError& error) {
    PrintMessage(error.what());
    return 2;
} catch (const std::exception& error) {
    PrintMessage(error.what());
    return 1;
}
