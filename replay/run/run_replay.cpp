#include "replay/run/run_replay.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_replace.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "replay/input_error.h"
#include "replay/report/report.h"
#include "replay/report/svg_chart.h"
#include "replay/run/checkpoint.h"
#include "replay/run/closing_checks.h"
#include "replay/run/persistent_directory.h"
#include "replay/run/replay.h"
#include "replay/settings_json.h"
#include "replay/target/in_process_target.h"
#include "replay/terminal.h"
#include "replay/trace/swf_trace.h"
#include "replay/trace/workload.h"

namespace replay {

namespace {

// ---- Before the replay ----

// Throws InputError unless the checkpoint is of this trace, and has the settings that the user gave.
void CheckFits(const Checkpoint& checkpoint, const SwfTrace& trace, const RunOptions& options) {
    if (checkpoint.trace_size != trace.size || checkpoint.trace_hash != trace.hash) {
        throw InputError(absl::StrCat(options.trace_path, ": is not the trace of the replay that was stopped in ",
                                      options.persistent_dir));
    }
    const nlohmann::json stopped = checkpoint.settings;
    const nlohmann::json given = options.settings;
    for (const std::string& name : options.given_settings) {
        if (given.at(name) == stopped.at(name)) continue;
        throw InputError(absl::StrCat("--", absl::StrReplaceAll(name, {{"_", "-"}}), ": ", given.at(name).dump(),
                                      ", but the replay was stopped with ", stopped.at(name).dump()));
    }
}

// The settings, with the number of HCAs from the trace when they have none.
ReplaySettings WithHcas(ReplaySettings settings, const SwfTrace& trace) {
    if (settings.hcas == 0) settings.hcas = HcasOfTrace(trace, settings.procs_per_hca);
    return settings;
}

// The settings, with the daemon's own options in place of ours.
ReplaySettings WithDaemonOptions(ReplaySettings settings, const OptionInfo& options, const std::string& address) {
    if (settings.auto_by_pkeys && !options.reservation_auto_by_pkeys) {
        throw InputError(
            absl::StrCat("--auto-by-pkeys: ", address, ": the daemon does not make reservations from pkeys"));
    }
    settings.auto_by_pkeys = options.reservation_auto_by_pkeys;
    settings.max_jobs_per_hca = options.max_jobs_per_hca;
    settings.default_num_trees = options.reservation_default_num_trees;
    return settings;
}

OptionInfo MakeOptionInfo(const ReplaySettings& settings, const std::string& dir) {
    OptionInfo options;
    options.persistent_dir = dir;
    options.max_jobs_per_hca = settings.max_jobs_per_hca;
    options.reservation_mode = true;
    options.reservation_auto_by_pkeys = settings.auto_by_pkeys;
    options.reservation_default_num_trees = settings.default_num_trees;
    return options;
}

// Throws InputError unless the chart, if there is to be one, can be written. Leaves no new file.
void CheckWritable(const std::string& path) {
    if (path.empty()) return;
    const bool is_new = !std::filesystem::exists(std::filesystem::status(path));
    errno = 0;
    if (!std::ofstream(path, std::ios::app)) {
        throw InputError(absl::StrCat("--svg: ", path, ": ", std::strerror(errno)));
    }
    if (is_new) std::filesystem::remove(path);
}

// ---- The replay ----

bool RunWithProgress(Replay& replay, uint64_t stop_after, size_t num_jobs) {
    ProgressLine line(num_jobs);
    return replay.Run(stop_after, [&](size_t jobs, int64_t time) { line.Show(jobs, time); });
}

// ---- After the replay ----

std::string UsageChart(const Report& report, const std::vector<Usage>& usage) {
    std::vector<StepSeries> series = {
        {"HCAs in use", "#1b6ca8", {}}, {"reservations in use", "#c4602a", {}}, {"trees in use", "#3a8f4d", {}}};
    for (const Usage& change : usage) {
        series[0].points.push_back({change.time, change.hcas});
        series[1].points.push_back({change.time, change.reservations});
        series[2].points.push_back({change.time, change.trees});
    }
    return DrawStepChart(report.trace_name,
                         absl::StrCat(report.figures.replayed, " jobs, ", DescribeSettings(report.settings)), series);
}

// `name` is the stream's, for the error.
void Write(std::ostream& stream, const std::string& name, const std::string& text) {
    stream << text << std::flush;
    if (!stream) throw std::runtime_error(name + ": cannot be written");
}

// Writes the outputs that the options ask for. Returns the program's exit status.
int WriteReport(const RunOptions& options, const Report& report, const std::vector<Usage>& usage) {
    if (!options.svg_path.empty()) {
        std::ofstream file(options.svg_path);
        Write(file, options.svg_path, UsageChart(report, usage));
    }
    const auto replace = nlohmann::json::error_handler_t::replace;    // bytes of the trace's name that are not UTF-8
    Write(std::cout, "standard output",
          options.json ? ReportJson(report).dump(2, ' ', false, replace) + "\n" : ReportText(report));
    for (const std::string& failure : report.failed_checks) PrintMessage("not as it must be: " + failure);
    return report.failed_checks.empty() ? 0 : 1;
}

// ---- The two kinds of replay ----

int ReplayInProcess(RunOptions options, const SwfTrace& trace) {
    Checkpoint stopped;
    if (options.resume) {
        stopped = ReadCheckpoint(options.persistent_dir);
        CheckFits(stopped, trace, options);
        options.settings = stopped.settings;
    }
    const ReplaySettings settings = WithHcas(options.settings, trace);
    const Workload workload = MakeWorkload(trace, settings);
    CheckWritable(options.svg_path);
    PersistentDirectory directory(options.persistent_dir);
    if (!options.resume) directory.CheckIsUnused();

    InProcessTarget target(MakeOptionInfo(settings, directory.path()), settings.log_level);
    Replay replay = options.resume ? Replay(workload, settings, {&target}, std::move(stopped.state))
                                   : Replay(workload, settings, {&target});
    target.SetCounters(stopped.counters);
    const std::vector<uint64_t> lost_jobs = target.StartUp(replay.RunningJobs());
    for (const uint64_t id : lost_jobs) PrintMessage(absl::StrCat("job ", id, " was not taken back at start-up"));
    if (!lost_jobs.empty()) return 1;

    const bool is_finished = RunWithProgress(replay, options.stop_after, workload.jobs.size());
    if (!is_finished) {
        directory.Keep();
        WriteCheckpoint(directory.path(), {settings, trace.size, trace.hash, target.counters(), replay.state()});
        PrintMessage("stopped; go on with --resume --persistent-dir " + directory.path());
    } else if (options.resume) {
        std::filesystem::remove(CheckpointPath(directory.path()));
    }
    if (is_finished && options.stop_after != 0) PrintMessage("the trace ended before there was a job to stop after");

    const ReplayState& state = replay.state();
    Report report{.trace_name = trace.name,
                  .settings = settings,
                  .figures = state.figures,
                  .latencies = replay.latencies(),
                  .start_up = target.start_up_counters(),
                  .replay = target.counters(),
                  .is_finished = is_finished,
                  .num_running = state.running.size(),
                  .num_waiting = state.waiting.size(),
                  .failed_checks = {}};
    if (is_finished) report.failed_checks = FailedChecks(state, target);
    return WriteReport(options, report, state.usage);
}

int ReplayThroughDaemon(const RunOptions& options, const SwfTrace& trace) {
    CheckWritable(options.svg_path);
    const ConnectOptions& connection = options.connection;
    const std::unique_ptr<DaemonTarget> daemon = ConnectToDaemon(connection);
    const ReplaySettings settings =
        WithDaemonOptions(WithHcas(options.settings, trace), daemon->options(), connection.address);
    const Workload workload = MakeWorkload(trace, settings);

    Replay replay(workload, settings, daemon->Clients());
    RunWithProgress(replay, 0, workload.jobs.size());
    const ReplayState& state = replay.state();
    const Report report{.trace_name = trace.name,
                        .settings = settings,
                        .figures = state.figures,
                        .latencies = replay.latencies(),
                        .daemon_address = connection.address,
                        .num_clients = connection.clients,
                        .num_in_flight = connection.in_flight,
                        .replay = daemon->counters(),
                        .is_finished = true,
                        .failed_checks = FailedChecks(state, *daemon)};
    return WriteReport(options, report, state.usage);
}

}    // namespace

int RunReplay(const RunOptions& options) {
    const SwfTrace trace = ReadSwfTrace(options.trace_path);
    return options.connection.address.empty() ? ReplayInProcess(options, trace) : ReplayThroughDaemon(options, trace);
}

}    // namespace replay
