#include "ctl/command_line.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "ctl/apply.h"
#include "ctl/commands.h"
#include "ctl/guid_list.h"
#include "util/text.h"

namespace reservationctl {

namespace {

constexpr char kDescription[] = "Makes, changes and shows the reservations of a running reservationd.";

constexpr char kFooter[] =
    "LIST is a list of GUIDs: 0x10,0x12 or 0x10-0x1f, or @FILE, or - for standard input; the option can be "
    "repeated.\n\n"
    "Exit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon.\n\n"
    "Examples:\n"
    "  reservationctl create appA --pkey 0x8001 --guids 0x10-0x1f --num-trees 4\n"
    "  reservationctl update appA --add @new-hosts --remove 0x10 --dry-run\n"
    "  reservationctl list --json > backup.json\n"
    "  reservationctl apply backup.json";

constexpr uint64_t kAnyNumber = std::numeric_limits<uint64_t>::max();
constexpr uint64_t kMaxPkey = 0xffff;
constexpr uint64_t kMaxByte = 0xff;
constexpr uint64_t kMaxLimit = 0xffffffff;
constexpr uint64_t kMaxTimeout = 24 * 60 * 60;

// A command's request as far as the command line has been read, and how its reply is printed.
template <typename Request>
struct Draft {
    Request request;
    Format format = Format::kText;
};

template <typename Request>
using DraftPointer = std::shared_ptr<Draft<Request>>;

// ---- Options ----

CLI::Option* AddText(CLI::App* command, const std::string& name, const std::string& help,
                     const std::function<void(const std::string&)>& set) {
    return command->add_option_function<std::string>(name, set, help)->type_name("");
}

CLI::Option* AddNumber(CLI::App* command, const std::string& name, uint64_t min, uint64_t max, const std::string& help,
                       const std::function<void(uint64_t)>& set) {
    const auto parse = [=](const std::string& text) { set(ParseNumber(text, min, max, name)); };
    return AddText(command, name, help, parse)->type_name(name.starts_with('-') ? "N" : "");
}

// An option that can be repeated.
CLI::Option* AddTexts(CLI::App* command, const std::string& name, const std::string& help,
                      const std::function<void(const std::vector<std::string>&)>& set) {
    return command->add_option_function<std::vector<std::string>>(name, set, help)->allow_extra_args(false);
}

template <typename AddGuids>
CLI::Option* AddGuidList(CLI::App* command, const std::string& name, const std::string& help, AddGuids field) {
    const auto read = [=](const std::vector<std::string>& values) {
        const GuidList guids = ReadGuids(values, name, std::cin);
        field()->Add(guids.begin(), guids.end());
    };
    return AddTexts(command, name, help + ": 0x10,0x20-0x2f, @FILE or -; can be repeated", read)->type_name("LIST");
}

CLI::Option* AddKey(CLI::App* command, const std::string& help, const std::function<void(const std::string&)>& set) {
    return AddText(command, "KEY", help, [set](const std::string& key) {
        if (key.empty()) throw UsageError("KEY: is empty");
        if (!util::IsUtf8(key)) throw UsageError("KEY: '" + key + "' is not UTF-8");
        set(key);
    });
}

template <typename Request>
void AddKey(CLI::App* command, const DraftPointer<Request>& draft) {
    AddKey(command, "the reservation's key", [draft](const auto& key) { draft->request.set_key(key); })->required();
}

template <typename Request>
void AddDryRun(CLI::App* command, const DraftPointer<Request>& draft) {
    command->add_flag_callback(
        "--dry-run", [draft] { draft->request.set_dry_run(true); }, "show what would happen, and change nothing");
}

// NAME=N
void SetLimit(const std::string& text, v1::Limits& limits) {
    const std::string name = text.substr(0, text.find('='));
    const auto* const limit = v1::Limits::descriptor()->FindFieldByName(name);
    if (limit == nullptr || name.size() == text.size()) {
        throw UsageError("--limit: '" + text +
                         "' is not NAME=N with one of limit0 to limit2, num_trees, limit4 to limit6");
    }
    const uint64_t value = ParseNumber(text.substr(name.size() + 1), 0, kMaxLimit, "--limit " + name);
    limits.GetReflection()->SetUInt32(&limits, limit, static_cast<uint32_t>(value));
}

void SetPkeys(const std::string& text, v1::ReportPortRequest& request) {
    if (text == "none") return;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        const uint64_t pkey = ParseNumber(text.substr(begin, end - begin), 0, kMaxPkey, "--pkeys");
        request.add_pkeys(static_cast<uint32_t>(pkey));
        begin = end + 1;
    }
}

// ---- Commands ----

class CommandAdder {
public:
    explicit CommandAdder(CommandLine& line) : line_(line) {}

    void AddReservationCommands(CLI::App* app) {
        AddCreate(app);
        AddUpdate(app);
        const auto draft = std::make_shared<Draft<v1::DeleteReservationRequest>>();
        CLI::App* const command = Add(app, "delete", "delete a reservation", draft, DeleteReservation);
        AddKey(command, draft);
        AddDryRun(command, draft);
        AddList(app);
        AddShow(app);
        AddApply(app);
    }

    void AddJobCommands(CLI::App* app) {
        CLI::App* const job = AddGroup(app, "job", "begin, end and list jobs");
        AddBegin(job);
        const auto end = std::make_shared<Draft<v1::EndJobRequest>>();
        AddJobId(Add(job, "end", "take a job that ended out of the counts", end, EndJob), end);
        const auto list = std::make_shared<Draft<v1::ListJobsRequest>>();
        AddKey(Add(job, "list", "list the running jobs", list, ListJobs), "of this reservation only",
               [list](const auto& key) { list->request.set_reservation_key(key); });
    }

    void AddFabricCommands(CLI::App* app) {
        AddReport(AddGroup(app, "pkeys", "tell the daemon about the pkeys of ports"));
        AddWatch(app);
        const auto draft = std::make_shared<Draft<v1::GetDaemonInfoRequest>>();
        Add(app, "status", "show facts about the daemon", draft,
            [](const Client& client, const v1::GetDaemonInfoRequest&, Format format) {
                return ShowStatus(client, format);
            });
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
        AddKey(command, draft);
        AddNumber(command, "--pkey", 0, kMaxPkey, "partition key, 0 to 0xffff", [request](uint64_t pkey) {
            request->set_pkey(static_cast<uint32_t>(pkey));
        })->required();
        AddGuidList(command, "--guids", "all of its GUIDs", [request] { return request->mutable_guids(); })->required();
        AddNumber(
            command, "--num-trees", 0, kMaxLimit, "trees that its jobs may use together, per plane",
            [request](uint64_t trees) { request->mutable_limits()->set_num_trees(static_cast<uint32_t>(trees)); });
        AddTexts(command, "--limit", "another limit by its name, such as limit0; can be repeated",
                 [request](const auto& limits) {
                     for (const std::string& limit : limits) SetLimit(limit, *request->mutable_limits());
                 })
            ->type_name("NAME=N");
        command->add_flag_callback(
            "--auto-created", [request] { request->set_auto_created(true); }, "mark it as made from pkeys");
        AddDryRun(command, draft);
    }

    void AddUpdate(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::UpdateReservationRequest>>();
        v1::UpdateReservationRequest* const request = &draft->request;
        CLI::App* const command = Add(app, "update", "add GUIDs to a reservation and remove GUIDs from it, all or none",
                                      draft, UpdateReservation);
        AddKey(command, draft);
        AddGuidList(command, "--add", "GUIDs to add", [request] { return request->mutable_add_guids(); });
        AddGuidList(command, "--remove", "GUIDs to remove", [request] { return request->mutable_remove_guids(); });
        AddDryRun(command, draft);
    }

    void AddList(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::GetReservationsRequest>>();
        draft->request.set_with_details(true);
        CLI::App* const command = Add(app, "list", "list the reservations", draft, ListReservations);
        const auto forget_details = [draft] { draft->request.set_with_details(false); };
        command->add_flag_callback("--keys", forget_details, "keys only, one a line")->excludes("--json");
    }

    void AddShow(CLI::App* app) {
        const auto draft = std::make_shared<Draft<v1::GetReservationsRequest>>();
        draft->request.set_with_details(true);
        AddKey(Add(app, "show", "show a reservation in full", draft, ShowReservation), draft);
    }

    void AddApply(CLI::App* app) {
        const auto settings = std::make_shared<ApplySettings>();
        CLI::App* const command =
            app->add_subcommand("apply", "make the reservations those of a file, as list --json prints it")
                ->fallthrough();
        command->add_option("FILE", settings->path, "the file; -: standard input")->type_name("")->required();
        command->add_flag("--yes", settings->is_agreed, "do not ask");
        command->add_flag("--dry-run", settings->is_dry_run, "show the plan, and change nothing");
        command->callback([this, settings] {
            line_.command = [settings](const Client& client) { return Apply(client, *settings); };
        });
    }

    template <typename Request>
    static void AddJobId(CLI::App* command, const DraftPointer<Request>& draft) {
        AddNumber(command, "JOB", 1, kAnyNumber, "the job's id", [draft](uint64_t id) {
            draft->request.set_job_id(id);
        })->required();
    }

    void AddBegin(CLI::App* job) {
        const auto draft = std::make_shared<Draft<v1::BeginJobRequest>>();
        v1::BeginJobRequest* const request = &draft->request;
        CLI::App* const command = Add(job, "begin", "admit a starting job to its reservation", draft, BeginJob);
        AddJobId(command, draft);
        AddGuidList(command, "--guids", "GUIDs of its HCAs", [request] {
            return request->mutable_guids();
        })->required();
        AddNumber(command, "--planes", 1, kMaxByte, "planes of its trees; default: 1",
                  [request](uint64_t planes) { request->set_planes(static_cast<uint32_t>(planes)); });
        AddNumber(command, "--trees", 0, kMaxByte, "its trees in each plane; default: 1",
                  [request](uint64_t trees) { request->set_trees(static_cast<uint32_t>(trees)); });
        request->set_trees(1);
    }

    void AddReport(CLI::App* pkeys) {
        const auto draft = std::make_shared<Draft<v1::ReportPortRequest>>();
        v1::ReportPortRequest* const request = &draft->request;
        CLI::App* const command =
            Add(pkeys, "report", "report all of the pkeys that a port carries now", draft, ReportPort);
        AddNumber(command, "GUID", 1, kAnyNumber, "of the port's HCA", [request](uint64_t guid) {
            request->set_guid(guid);
        })->required();
        AddNumber(command, "PORT", 0, kMaxByte, "the port's number", [request](uint64_t port) {
            request->set_port_num(static_cast<uint32_t>(port));
        })->required();
        AddText(command, "--pkeys", "such as 0x8001,0x7fff, or none",
                [request](const auto& text) { SetPkeys(text, *request); })
            ->type_name("PKEYS")
            ->required();
    }

    void AddWatch(CLI::App* app) {
        const auto count = std::make_shared<uint64_t>(0);
        const auto draft = std::make_shared<Draft<v1::WatchRequest>>();
        CLI::App* const command = Add(app, "watch", "print what happens, as it happens", draft,
                                      [count](const Client& client, const v1::WatchRequest& request, Format format) {
                                          return WatchEvents(client, request, *count, format);
                                      });
        AddNumber(command, "--from", 1, kAnyNumber, "begin with the event of this number; default: the next one",
                  [draft](uint64_t sequence) { draft->request.set_from_sequence(sequence); });
        AddNumber(command, "--count", 1, kAnyNumber, "end after so many events",
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

}    // namespace

CommandLine ReadCommandLine(int argc, char** argv) {
    CommandLine line;
    line.connection.addresses = {"unix:/run/reservationd/reservationd.sock"};
    CLI::App app(kDescription, "reservationctl");
    app.set_version_flag("--version", RESERVATIONCTL_VERSION);
    AddConnectionOptions(app, line.connection);
    CommandAdder adder(line);
    adder.AddReservationCommands(&app);
    adder.AddJobCommands(&app);
    adder.AddFabricCommands(&app);
    app.footer(kFooter);    // after the commands, which would take it over
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) std::exit(app.exit(error));
        throw UsageError(error.what());
    }
    if (!line.command) throw UsageError("the command is missing; see --help");
    return line;
}

}    // namespace reservationctl
