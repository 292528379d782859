#include "replay/run/run_replay.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "replay/file.h"
#include "replay/report/report.h"
#include "replay/report/svg_chart.h"
#include "replay/report/terminal.h"
#include "replay/run/checkpoint.h"
#include "replay/run/closing_checks.h"
#include "replay/run/replay.h"
#include "replay/target/in_process_service.h"
#include "replay/trace/swf_trace.h"
#include "replay/trace/workload.h"

namespace {

// The persistent directory of a run.
class PersistentDirectory {
public:
    // An empty path: a new temporary directory.
    explicit PersistentDirectory(std::string path) : path_(std::move(path)), is_temporary_(path_.empty()) {
        std::error_code error;
        if (is_temporary_) {
            const std::filesystem::path parent = std::filesystem::temp_directory_path(error);
            if (error) throw InputError("TMPDIR: cannot be used: " + error.message());
            path_ = parent / "reservation-replay.XXXXXX";
            if (mkdtemp(path_.data()) == nullptr) throw InputError(path_ + ": " + std::strerror(errno));
        } else if (!std::filesystem::is_directory(path_, error)) {
            std::filesystem::create_directory(path_, error);
            if (error) throw InputError("--persistent-dir: " + path_ + ": cannot be made: " + error.message());
        }
    }
    PersistentDirectory(const PersistentDirectory&) = delete;
    PersistentDirectory& operator=(const PersistentDirectory&) = delete;
    ~PersistentDirectory() {
        std::error_code ignored;
        if (is_temporary_) std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

    // Leaves the directory where it is.
    void Keep() { is_temporary_ = false; }

private:
    std::string path_;
    bool is_temporary_;
};

void CheckIsUnused(const std::string& dir) {
    if (std::filesystem::exists(CheckpointPath(dir))) {
        throw InputError("--persistent-dir: " + dir + " holds a stopped replay; go on with it by --resume");
    }
    const std::vector<std::string> files = ReservationFilesIn(dir);
    if (!files.empty()) {
        throw InputError("--persistent-dir: " + dir + " holds reservations already: " + files.front());
    }
}

// Throws InputError unless the checkpoint is of this trace, with the settings that were given now.
void CheckFits(const Checkpoint& checkpoint, const SwfTrace& trace, const RunOptions& options) {
    if (checkpoint.trace_size != trace.size || checkpoint.trace_hash != trace.hash) {
        throw InputError(options.trace_path + ": is not the trace of the replay that was stopped in " +
                         options.persistent_dir);
    }
    const nlohmann::json stopped = ToJson(checkpoint.settings);
    const nlohmann::json given = ToJson(options.settings);
    for (const std::string& name : options.given_settings) {
        if (given.at(name) == stopped.at(name)) continue;
        std::string option = "--" + name;
        std::replace(option.begin(), option.end(), '_', '-');
        throw InputError(option + ": " + given.at(name).dump() + ", but the replay was stopped with " +
                         stopped.at(name).dump());
    }
}

// The settings with as many HCAs as the trace's machine had, when they give none.
Settings WithHcas(Settings settings, const SwfTrace& trace) {
    if (settings.hcas == 0) settings.hcas = HcasOfTrace(trace, settings.procs_per_hca);
    return settings;
}

OptionInfo MakeOptionInfo(const Settings& settings, const std::string& dir) {
    OptionInfo options;
    options.persistent_dir = dir;
    options.max_jobs_per_hca = settings.max_jobs_per_hca;
    options.reservation_mode = true;
    options.reservation_auto_by_pkeys = settings.auto_by_pkeys;
    options.reservation_default_num_trees = settings.default_num_trees;
    return options;
}

std::string Chart(const Report& report) {
    std::vector<StepSeries> series = {
        {"HCAs in use", "#1b6ca8", {}}, {"reservations in use", "#c4602a", {}}, {"trees in use", "#3a8f4d", {}}};
    for (const Usage& usage : report.state.usage) {
        series[0].steps.push_back({usage.time, usage.hcas});
        series[1].steps.push_back({usage.time, usage.reservations});
        series[2].steps.push_back({usage.time, usage.trees});
    }
    return DrawStepChart(report.trace_name,
                         std::to_string(report.state.figures.replayed) + " jobs, " + DescribeSetting(report.settings),
                         series);
}

bool RunWithProgress(Replay& replay, uint64_t stop_after, size_t num_jobs) {
    ProgressLine line(num_jobs);
    return replay.Run(stop_after, [&](size_t jobs, int64_t time) { line.Show(jobs, time); });
}

// Makes sure before the replay that its picture, if one is wanted, can be written. Leaves no file that was not there.
void CheckWritable(const std::string& path) {
    if (path.empty()) return;
    const bool is_new = !std::filesystem::exists(std::filesystem::status(path));
    errno = 0;
    if (!std::ofstream(path, std::ios::app)) throw InputError("--svg: " + path + ": " + std::strerror(errno));
    if (is_new) std::filesystem::remove(path);
}

void Write(std::ostream& stream, const std::string& name, const std::string& text) {
    stream << text << std::flush;
    if (!stream) throw std::runtime_error(name + ": cannot be written");
}

void WriteReport(const RunOptions& options, const Report& report) {
    if (!options.svg_path.empty()) {
        std::ofstream file(options.svg_path);
        Write(file, options.svg_path, Chart(report));
    }
    const auto replace = nlohmann::json::error_handler_t::replace;    // bytes of the trace's name that are not UTF-8
    Write(std::cout, "standard output",
          options.json ? ReportJson(report).dump(2, ' ', false, replace) + "\n" : ReportText(report));
}

// Writes the report. Returns the program's exit status.
int Conclude(const RunOptions& options, const Report& report) {
    WriteReport(options, report);
    for (const std::string& failure : report.failed_checks) PrintMessage("not as it must be: " + failure);
    return report.failed_checks.empty() ? 0 : 1;
}

int ReplayInProcess(RunOptions options, const SwfTrace& trace) {
    Checkpoint stopped;
    if (options.resume) {
        stopped = ReadCheckpoint(options.persistent_dir);
        CheckFits(stopped, trace, options);
        options.settings = stopped.settings;
    }
    const Settings settings = WithHcas(options.settings, trace);
    const Workload workload = MakeWorkload(trace, settings);
    CheckWritable(options.svg_path);
    PersistentDirectory directory(options.persistent_dir);
    if (!options.resume) CheckIsUnused(directory.path());

    InProcessService service(MakeOptionInfo(settings, directory.path()), settings.log_level);
    Replay replay = options.resume ? Replay(workload, settings, {&service}, std::move(stopped.state))
                                   : Replay(workload, settings, {&service});
    service.SetRecorded(stopped.recorded);
    const std::vector<uint64_t> lost_jobs = service.StartUp(replay.RunningJobs());
    for (const uint64_t id : lost_jobs) PrintMessage("job " + std::to_string(id) + " was not taken back at start-up");
    if (!lost_jobs.empty()) return 1;

    const bool is_finished = RunWithProgress(replay, options.stop_after, workload.jobs.size());
    if (!is_finished) {
        directory.Keep();
        WriteCheckpoint(directory.path(), {settings, trace.size, trace.hash, service.recorded(), replay.state()});
        PrintMessage("stopped; go on with --resume --persistent-dir " + directory.path());
    } else if (options.resume) {
        std::filesystem::remove(CheckpointPath(directory.path()));
    }
    if (is_finished && options.stop_after != 0) PrintMessage("the trace ended before there was a job to stop after");

    return Conclude(
        options, {.trace_name = trace.name,
                  .settings = settings,
                  .state = replay.state(),
                  .latencies = replay.latencies(),
                  .start_up = service.recorded_at_start_up(),
                  .replay = service.recorded(),
                  .is_finished = is_finished,
                  .failed_checks = is_finished ? FailedChecks(replay.state(), service) : std::vector<std::string>()});
}

// The settings with those that are the daemon's in place of ours.
Settings WithDaemonOptions(Settings settings, const OptionInfo& options, const std::string& address) {
    if (settings.auto_by_pkeys && !options.reservation_auto_by_pkeys) {
        throw InputError("--auto-by-pkeys: " + address + ": the daemon does not make reservations from pkeys");
    }
    settings.auto_by_pkeys = options.reservation_auto_by_pkeys;
    settings.max_jobs_per_hca = options.max_jobs_per_hca;
    settings.default_num_trees = options.reservation_default_num_trees;
    return settings;
}

int ReplayThroughDaemon(const RunOptions& options, const SwfTrace& trace) {
    CheckWritable(options.svg_path);
    const Connection& connection = options.connection;
    const std::unique_ptr<DaemonTarget> daemon = ConnectToDaemon(connection);
    const Settings settings =
        WithDaemonOptions(WithHcas(options.settings, trace), daemon->options(), connection.address);
    const Workload workload = MakeWorkload(trace, settings);

    Replay replay(workload, settings, daemon->Clients());
    RunWithProgress(replay, 0, workload.jobs.size());
    return Conclude(options, {.trace_name = trace.name,
                              .settings = settings,
                              .state = replay.state(),
                              .latencies = replay.latencies(),
                              .daemon_address = connection.address,
                              .num_clients = connection.clients,
                              .replay = daemon->recorded(),
                              .is_finished = true,
                              .failed_checks = FailedChecks(replay.state(), *daemon)});
}

}    // namespace

int RunReplay(const RunOptions& options) {
    const SwfTrace trace = ReadSwfTrace(options.trace_path);
    return options.connection.address.empty() ? ReplayInProcess(options, trace) : ReplayThroughDaemon(options, trace);
}
