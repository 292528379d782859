#include "ctl/command_line.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "ctl/apply.h"
#include "ctl/commands.h"
#include "ctl/options.h"
#include "ctl/reconcile.h"
#include "util/limits.h"
#include "util/text.h"

namespace reservationctl {
namespace {

constexpr char kDescription[] = "Makes, changes and shows the reservations of a running reservationd.";

constexpr char kFooter[] =
    "LIST is a list of GUIDs: 0x10,0x12 or 0x10-0x1f, or @FILE, or - for standard input; NODES are nodes that the "
    "daemon "
    "knows:\nnode[001-016,020],login1. The options can be repeated.\n\n"
    "Exit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon, 4 not allowed, or no TLS connection, 5 try again "
    "later,\n6 no such reservation, 7 changed meanwhile.\n\n"
    "Examples:\n"
    "  reservationctl create appA --pkey 0x8001 --guids 0x10-0x1f --num-trees 4\n"
    "  reservationctl create appB --pkey 0x8002 --nodes node[001-016]\n"
    "  reservationctl update appA --add @new-hosts --remove 0x10 --dry-run\n"
    "  reservationctl list --json > backup.json\n"
    "  reservationctl apply backup.json";

constexpr uint64_t kMaxTimeout = 24 * 60 * 60;    // seconds
constexpr uint64_t kMaxUnixSeconds = 253'402'300'799;    // the end of the year 9999

struct CommandLine {
    client::ConnectionOptions connection;
    std::function<ExitStatus(const Client& client)> command;
};

// A command's request as far as the command line has been read, and how its reply is printed.
template <typename Request>
struct Draft {
    Request request;
    Format format = Format::kText;
};

template <typename Request>
using DraftPointer = std::shared_ptr<Draft<Request>>;

template <typename Request>
void AddRequiredKey(CLI::App* command, const DraftPointer<Request>& draft) {
    AddKey(command, "the reservation's key", [draft](const auto& key) { draft->request.set_key(key); })->required();
}

// Refuses a command line with none of these options.
void RequireOne(CLI::App* command, const std::vector<const CLI::Option*>& options) {
    command->parse_complete_callback([options] {
        const auto is_given = [](const CLI::Option* option) { return option->count() > 0; };
        if (std::any_of(options.begin(), options.end(), is_given)) return;
        std::string names;
        for (const CLI::Option* option : options) names += (names.empty() ? "" : ", ") + option->get_name();
        throw UsageError("one of these is missing: " + names);
    });
}

template <typename Request>
void AddJobId(CLI::App* command, const DraftPointer<Request>& draft) {
    const auto set_id = [draft](uint64_t id) { draft->request.set_job_id(id); };
    AddNumber(command, "JOB", 1, UINT64_MAX, "the job's id", set_id)->required();
}

// Of a listing.
template <typename Request>
void AddNoNodes(CLI::App* command, const DraftPointer<Request>& draft) {
    draft->request.set_with_nodes(true);
    const auto clear = [draft] { draft->request.set_with_nodes(false); };
    command->add_flag_callback("--no-nodes", clear, "show GUIDs where the daemon knows nodes, too");
}

template <typename Request>
void AddStart(CLI::App* command, const std::string& help, const DraftPointer<Request>& draft) {
    AddNumber(command, "--start", 1, kMaxUnixSeconds, help, [draft](int64_t seconds) {
        draft->request.set_start_unix_millis(seconds * 1000);
    })->type_name("TIME");
}

template <typename Request>
void AddDryRun(CLI::App* command, const DraftPointer<Request>& draft) {
    const auto set_dry_run = [draft] { draft->request.set_dry_run(true); };
    command->add_flag_callback("--dry-run", set_dry_run, "show what would happen, and change nothing");
}

// Adds the commands. Each one sets `line.command` when it is parsed.
class CommandAdder {
public:
    explicit CommandAdder(CommandLine& line) : line_(line) {}

    void AddReservationCommands(CLI::App* app) {
        AddCreate(app);
        AddUpdate(app);
        AddDelete(app);
        AddList(app);
        AddShow(app);
        AddApply(app);
    }

    void AddJobCommands(CLI::App* app) {
        CLI::App* const job = AddGroup(app, "job", "begin, end and list jobs");
        AddBegin(job);
        AddEnd(job);
        const auto list = std::make_shared<Draft<v1::ListJobsRequest>>();
        CLI::App* const command = Add(job, "list", "list the running jobs", list, ListJobs);
        AddKey(command, "of this reservation only",
               [list](const auto& key) { list->request.set_reservation_key(key); });
        AddNoNodes(command, list);
        AddReconcile(job);
    }

    void AddNodeCommands(CLI::App* app) {
        const auto who = std::make_shared<Draft<v1::ListNodesRequest>>();
        AddNodeOrGuid(Add(app, "who", "tell who has nodes or HCAs", who, ShowHolders), &who->request);
        const auto draft = std::make_shared<Draft<v1::ListNodesRequest>>();
        CLI::App* const command =
            Add(app, "nodes", "list the nodes that the daemon knows, and count the free ones", draft, ListNodes);
        AddNodes(command, "NODES", "these only", draft->request.mutable_nodes());
    }

    void AddFabricCommands(CLI::App* app) {
        AddReport(AddGroup(app, "pkeys", "tell the daemon about the pkeys of ports"));
        AddWatch(app);
        const auto draft = std::make_shared<Draft<v1::GetDaemonInfoRequest>>();
        Add(app, "status", "show facts about the daemon", draft, ShowStatus);
    }

private:
    static CLI::App* AddGroup(CLI::App* app, const std::string& name, const std::string& help) {
        return app->add_subcommand(name, help)->fallthrough();
    }

    // A command that calls `run` with the draft as it is when the line has been read.
    template <typename Request, typename Run>
    CLI::App* Add(CLI::App* app, const std::string& name, const std::string& help, const DraftPointer<Request>& draft,
                  Run run) {
        CLI::App* const command = app->add_subcommand(name, help)->fallthrough();
        command->add_flag_callback(
            "--json", [draft] { draft->format = Format::kJson; }, "print the reply as JSON");
        command->callback([this, draft, run] {
            line_.command = [draft, run](const Client& client) { return run(client, draft->request, draft->format); };
        });
        return command;
    }

    void AddCreate(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::CreateReservationRequest>>();
        v1::CreateReservationRequest* const request = &draft->request;
        CLI::App* const command =
            Add(app, "create", "create a reservation, or replace the GUIDs of the one with this key", draft,
                CreateReservation);
        AddRequiredKey(command, draft);
        AddNumber(command, "--pkey", 0, util::kMaxPkey, "partition key, 0 to 0xffff", [request](uint32_t pkey) {
            request->set_pkey(pkey);
        })->required();
        RequireOne(command, {AddGuids(command, "--guids", "all of its GUIDs", request->mutable_guids()),
                             AddNodes(command, "--nodes", "nodes, whose HCAs it gets", request->mutable_nodes()),
                             AddFreeNodes(command, "--free", [request] { return request->mutable_free_nodes(); })});
        AddLimits(command, request);
        command->add_flag_callback(
            "--auto-created", [request] { request->set_auto_created(true); }, "mark it as made from pkeys");
        AddDryRun(command, draft);
        draft->request.set_with_nodes(true);
    }

    void AddUpdate(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::UpdateReservationRequest>>();
        CLI::App* const command = Add(app, "update", "add GUIDs to a reservation and remove GUIDs from it, all or none",
                                      draft, UpdateReservation);
        AddRequiredKey(command, draft);
        AddGuids(command, "--add", "GUIDs to add", draft->request.mutable_add_guids());
        AddGuids(command, "--remove", "GUIDs to remove", draft->request.mutable_remove_guids());
        AddNodes(command, "--add-nodes", "nodes to add", draft->request.mutable_add_nodes());
        AddNodes(command, "--remove-nodes", "nodes to remove", draft->request.mutable_remove_nodes());
        AddFreeNodes(command, "--add-free", [draft] { return draft->request.mutable_add_free_nodes(); });
        AddDryRun(command, draft);
        draft->request.set_with_nodes(true);
    }

    void AddDelete(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::DeleteReservationRequest>>();
        CLI::App* const command = Add(app, "delete", "delete a reservation", draft, DeleteReservation);
        AddRequiredKey(command, draft);
        AddDryRun(command, draft);
        draft->request.set_with_nodes(true);
    }

    void AddList(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::GetReservationsRequest>>();
        draft->request.set_with_details(true);
        CLI::App* const command = Add(app, "list", "list the reservations", draft, ListReservations);
        AddNoNodes(command, draft);
        const auto clear_details = [draft] { draft->request.set_with_details(false); };
        command->add_flag_callback("--keys", clear_details, "keys only, one a line")->excludes("--json");
    }

    void AddShow(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::GetReservationsRequest>>();
        draft->request.set_with_details(true);
        draft->request.set_with_nodes(true);
        AddRequiredKey(Add(app, "show", "show a reservation in full", draft, ShowReservation), draft);
    }

    void AddApply(CLI::App* app) {
        const auto settings = std::make_shared<ApplySettings>();
        CLI::App* const command =
            app->add_subcommand("apply", "make the reservations those of a file, as list --json prints it")
                ->fallthrough();
        command->add_option("FILE", settings->path, "the file; -: standard input")->type_name("")->required();
        command->add_flag("--yes", settings->assume_yes, "do not ask");
        command->add_flag("--dry-run", settings->dry_run, "show the plan, and change nothing");
        command->callback([this, settings] {
            line_.command = [settings](const Client& client) { return Apply(client, *settings); };
        });
    }

    void AddBegin(CLI::App* job) {
        const auto draft = std::make_shared<Draft<v1::BeginJobRequest>>();
        v1::BeginJobRequest* const request = &draft->request;
        CLI::App* const command = Add(job, "begin", "admit a starting job to its reservation", draft, BeginJob);
        AddJobId(command, draft);
        RequireOne(command, {AddGuids(command, "--guids", "GUIDs of its HCAs", request->mutable_guids()),
                             AddNodes(command, "--nodes", "its nodes", request->mutable_nodes())});
        AddNumber(command, "--planes", 1, util::kMaxPlanes, "planes of its trees; default: 1",
                  [request](uint32_t planes) { request->set_planes(planes); });
        AddNumber(command, "--trees", 1, util::kMaxTrees, "its trees in each plane; default: 1",
                  [request](uint32_t trees) { request->set_trees(trees); });
        request->set_trees(1);
        AddStart(command, "when the scheduler started it, in seconds since 1970; ends an earlier job with this id",
                 draft);
        AddText(command, "--reservation", "only into this reservation", [request](const std::string& key) {
            request->set_reservation_key(key);
        })->type_name("KEY");
    }

    void AddEnd(CLI::App* job) {
        const auto draft = std::make_shared<Draft<v1::EndJobRequest>>();
        CLI::App* const command = Add(job, "end", "take a job that ended out of the counts", draft, EndJob);
        AddJobId(command, draft);
        AddStart(command, "leave a job alone that began later, in seconds since 1970", draft);
    }

    void AddReconcile(CLI::App* job) {
        const auto settings = std::make_shared<ReconcileSettings>();
        CLI::App* const command =
            job->add_subcommand("reconcile", "end the jobs that the scheduler does not know")->fallthrough();
        command
            ->add_option("--from", settings->path,
                         "the scheduler's jobs: ID START a line, in seconds since 1970; -: standard input")
            ->type_name("FILE")
            ->required();
        AddNumber(command, "--min-age", 0, kMaxTimeout,
                  "leave jobs alone that began less than so many seconds ago, maybe after the list was made; "
                  "default: 60",
                  [settings](uint64_t seconds) { settings->min_age = std::chrono::seconds(seconds); });
        command->add_flag("--all", settings->all, "also end jobs that began without a start time");
        command->add_flag("--dry-run", settings->dry_run, "show what would be ended, and end nothing");
        command->callback([this, settings] {
            line_.command = [settings](const Client& client) { return ReconcileJobs(client, *settings); };
        });
    }

    void AddReport(CLI::App* pkeys) {
        const auto draft = std::make_shared<Draft<v1::ReportPortRequest>>();
        v1::ReportPortRequest* const request = &draft->request;
        CLI::App* const command =
            Add(pkeys, "report", "report all of the pkeys that a port carries now", draft, ReportPort);
        AddNumber(command, "GUID", 1, UINT64_MAX, "of the port's HCA", [request](uint64_t guid) {
            request->set_guid(guid);
        })->required();
        AddNumber(command, "PORT", 0, util::kMaxPortNumber, "the port's number", [request](uint32_t port) {
            request->set_port_num(port);
        })->required();
        AddPkeys(command, request)->required();
    }

    void AddWatch(CLI::App* app) {
        const auto count = std::make_shared<uint64_t>(0);
        const auto draft = std::make_shared<Draft<v1::WatchRequest>>();
        const auto run = [count](const Client& client, const v1::WatchRequest& request, Format format) {
            return WatchEvents(client, request, *count, format);
        };
        CLI::App* const command = Add(app, "watch", "print what happens, as it happens", draft, run);
        AddNumber(command, "--from", 1, UINT64_MAX, "begin with the event of this number; default: the next one",
                  [draft](uint64_t sequence) { draft->request.set_from_sequence(sequence); });
        AddNumber(command, "--count", 1, UINT64_MAX, "end after so many events",
                  [count](uint64_t number) { *count = number; });
    }

    CommandLine& line_;
};

void AddConnectionOptions(CLI::App& app, client::ConnectionOptions& connection) {
    app.add_option("--address", connection.addresses.front(), "of the daemon: unix:PATH, or host:port with TLS")
        ->envname("RESERVATIOND_ADDRESS")
        ->capture_default_str()
        ->type_name("ADDRESS");
    app.add_option("--tls-ca", connection.tls_ca, "PEM file: what signs the daemon's certificate")->type_name("FILE");
    app.add_option("--tls-cert", connection.tls_certificate, "PEM file: our certificate")->type_name("FILE");
    app.add_option("--tls-key", connection.tls_key, "PEM file: the key of our certificate")->type_name("FILE");
    AddNumber(&app, "--timeout", 1, kMaxTimeout, "seconds to wait for each reply; default: 30",
              [&connection](uint64_t seconds) { connection.timeout = std::chrono::seconds(seconds); });
}

// Throws Error, and what commands throw.
ExitStatus Run(int argc, const char* const* argv) {
    CommandLine line;
    line.connection.addresses = {"unix:/run/reservationd/reservationd.sock"};
    CLI::App app(kDescription, "reservationctl");
    app.set_version_flag("--version", RESERVATIONCTL_VERSION);
    AddConnectionOptions(app, line.connection);
    CommandAdder adder(line);
    adder.AddReservationCommands(&app);
    adder.AddJobCommands(&app);
    adder.AddNodeCommands(&app);
    adder.AddFabricCommands(&app);
    app.footer(kFooter);    // after the commands, which would take it over
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) throw UsageError(error.what());
        app.exit(error);    // prints the help or the version
        return ExitStatus::kDone;
    }
    if (!line.command) throw UsageError("the command is missing; see --help");
    const absl::StatusOr<Client> client = Client::Make(line.connection);
    if (!client.ok()) throw UsageError(std::string(client.status().message()));
    const ExitStatus status = line.command(*client);
    if (!std::cout.flush()) throw Error(ExitStatus::kRefused, "standard output cannot be written");
    return status;
}

}    // namespace

ExitStatus RunCommandLine(int argc, const char* const* argv) try {
    return Run(argc, argv);
} catch (const Error& error) {
    std::cerr << "reservationctl: " << util::Printable(error.what()) << '\n';
    return error.status();
} catch (const std::exception& error) {
    std::cerr << "reservationctl: " << util::Printable(error.what()) << '\n';
    return ExitStatus::kRefused;
}

}    // namespace reservationctl
