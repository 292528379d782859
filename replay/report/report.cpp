#include "replay/report/report.h"

#include <cmath>
#include <cstdio>

#include "replay/file.h"
#include "replay/run/checkpoint.h"

using nlohmann::json;

namespace {

// As people expect them.
constexpr const char* kOperationKinds[] = {"create", "update", "delete", "job_start", "job_end", "pkey_report"};

// 18239 as "18,239".
std::string Grouped(uint64_t number) {
    std::string digits = std::to_string(number);
    for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, 1, ',');
    return digits;
}

std::string Fixed(double number, int decimals) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, number);
    return text;
}

// Seconds in the unit that suits them.
std::string Duration(double seconds) {
    if (seconds < 120) return Fixed(seconds, 0) + " s";
    if (seconds < 7200) return Fixed(seconds / 60, 1) + " min";
    if (seconds < 172800) return Fixed(seconds / 3600, 1) + " h";
    return Fixed(seconds / 86400, 1) + " days";
}

// A line of the report: what it is about where the subject changes, a name, a number, and a remark.
std::string Line(const char* subject, const std::string& name, const std::string& number,
                 const std::string& remark = "") {
    char text[128];
    std::snprintf(text, sizeof(text), "%-14s %-30s %12s", subject, name.c_str(), number.c_str());
    return text + (remark.empty() ? "" : "  " + remark) + "\n";
}

std::string JobLines(const Figures& figures) {
    std::string text = Line("jobs", "in the trace", Grouped(figures.jobs_in_trace));
    text += Line("", "replayed", Grouped(figures.replayed));
    text += Line("", "refused", Grouped(figures.Refused()));
    for (const auto& [reason, count] : figures.refused) text += Line("", "  " + reason, Grouped(count));
    text += Line("", "too wide for the fabric", Grouped(figures.too_wide));
    text += Line("", "without a run time", Grouped(figures.without_run_time));
    text += Line("", "without processors", Grouped(figures.without_procs));
    std::string waits;
    if (figures.waited > 0) {
        const double mean = static_cast<double>(figures.total_wait) / static_cast<double>(figures.waited);
        waits = "on average " + Duration(mean) + ", at most " + Duration(static_cast<double>(figures.longest_wait));
    }
    return text + Line("", "had to wait for HCAs", Grouped(figures.waited), waits);
}

std::string OperationLines(const Figures& figures) {
    std::string text;
    const char* subject = "operations";
    for (const char* kind : kOperationKinds) {
        const auto found = figures.operations.find(kind);
        if (found == figures.operations.end()) continue;
        for (const auto& [status, count] : found->second) {
            text += Line(subject, kind + (": " + status), Grouped(count));
            subject = "";
        }
    }
    return text;
}

std::string RecordLines(const Recorded& start_up, const Recorded& replay) {
    std::string text;
    for (size_t i = 0; i < replay.records.size(); ++i) {
        const uint64_t at_start_up = start_up.records[i];
        text += Line(i == 0 ? "log records" : "", "level " + std::to_string(i + 1), Grouped(replay.records[i]),
                     at_start_up == 0 ? "" : "and " + Grouped(at_start_up) + " at start-up");
    }
    return text;
}

json EventsAndRecords(const Recorded& recorded) {
    json records;
    for (size_t i = 0; i < recorded.records.size(); ++i) records[std::to_string(i + 1)] = recorded.records[i];
    const json events = {{"created", recorded.created_events},
                         {"updated", recorded.updated_events},
                         {"removed", recorded.removed_events}};
    return {{"events", events}, {"records", records}};
}

std::string Milliseconds(double seconds) { return Fixed(1000 * seconds, 3) + " ms"; }

std::string LatencyLines(const Latencies& latencies) {
    std::string text;
    const char* subject = "latency";
    for (const char* kind : kOperationKinds) {
        const auto found = latencies.find(kind);
        if (found == latencies.end()) continue;
        const LatencySummary summary = Summarize(found->second);
        text += Line(subject, kind + std::string(": median"), Milliseconds(summary.p50),
                     "90 % " + Milliseconds(summary.p90) + ", 99 % " + Milliseconds(summary.p99) + ", max " +
                         Milliseconds(summary.max));
        subject = "";
    }
    return text;
}

json LatenciesInMilliseconds(const Latencies& latencies) {
    json json_latencies = json::object();
    for (const auto& [kind, seconds] : latencies) {
        const LatencySummary summary = Summarize(seconds);
        json_latencies[kind] = {{"p50", 1000 * summary.p50},
                                {"p90", 1000 * summary.p90},
                                {"p99", 1000 * summary.p99},
                                {"max", 1000 * summary.max}};
    }
    return json_latencies;
}

double OperationsPerSecond(const Figures& figures) {
    return figures.seconds > 0 ? static_cast<double>(figures.Operations()) / figures.seconds : 0;
}

}    // namespace

std::string DescribeSetting(const Settings& settings) {
    return Grouped(settings.hcas) + " HCAs, a reservation per " + settings.per +
           (settings.auto_by_pkeys ? ", made from pkeys" : "");
}

std::string ReportText(const Report& report) {
    const Figures& figures = report.state.figures;
    const Recorded& recorded = report.replay;
    const bool is_in_process = report.daemon_address.empty();
    std::string text = Printable(report.trace_name) + " on " + DescribeSetting(report.settings) + "\n";
    if (!is_in_process) {
        text += "through the daemon at " + Printable(report.daemon_address) + " by " + Grouped(report.num_clients) +
                (report.num_clients == 1 ? " client\n" : " clients\n");
    }
    text += "\n";
    text += JobLines(figures);
    if (!report.is_finished) {
        text += Line("", "running now", Grouped(report.state.running.size()));
        text += Line("", "waiting now", Grouped(report.state.waiting.size()));
    }
    text += OperationLines(figures);
    text += Line("", "failed requests, as counted", Grouped(recorded.failed_requests));
    text += Line("events", "reservation created", Grouped(recorded.created_events));
    text += Line("", "reservation updated", Grouped(recorded.updated_events));
    text += Line("", "reservation removed", Grouped(recorded.removed_events));
    text += Line("most at once", "HCAs", Grouped(figures.most_hcas));
    text += Line("", "reservations", Grouped(figures.most_reservations));
    text += Line("", "jobs", Grouped(figures.most_jobs));
    text += Line("", "trees", Grouped(figures.most_trees));
    if (is_in_process) text += RecordLines(report.start_up, recorded);
    text += LatencyLines(report.latencies);
    text += Line("speed", "operations per second", Grouped(static_cast<uint64_t>(OperationsPerSecond(figures))),
                 Grouped(figures.Operations()) + " in " + Fixed(figures.seconds, 2) +
                     " s: requests, job starts, job ends and pkey reports");
    if (report.is_finished && report.failed_checks.empty()) text += "\nNothing is left, and nothing went wrong.\n";
    return text;
}

json ReportJson(const Report& report) {
    const Figures& figures = report.state.figures;
    json json_report = EventsAndRecords(report.replay);
    json_report["trace"] = report.trace_name;
    json_report["settings"] = ToJson(report.settings);
    json_report["finished"] = report.is_finished;
    json_report["jobs"] = {{"in_trace", figures.jobs_in_trace},
                           {"replayed", figures.replayed},
                           {"refused", figures.Refused()},
                           {"refused_by_reason", figures.refused},
                           {"too_wide", figures.too_wide},
                           {"without_run_time", figures.without_run_time},
                           {"without_procs", figures.without_procs},
                           {"waited", figures.waited},
                           {"total_wait_seconds", figures.total_wait},
                           {"longest_wait_seconds", figures.longest_wait},
                           {"running", report.state.running.size()},
                           {"waiting", report.state.waiting.size()}};
    json_report["operations"] = figures.operations;
    json_report["failed_requests"] = report.replay.failed_requests;
    json_report["most_at_once"] = {{"hcas", figures.most_hcas},
                                   {"reservations", figures.most_reservations},
                                   {"jobs", figures.most_jobs},
                                   {"trees", figures.most_trees}};
    json_report["failed_checks"] = report.failed_checks;
    json_report["start_up"] = EventsAndRecords(report.start_up);
    json_report["timing"] = {{"seconds", figures.seconds},
                             {"operations", figures.Operations()},
                             {"operations_per_second", OperationsPerSecond(figures)},
                             {"latency_ms", LatenciesInMilliseconds(report.latencies)}};
    if (!report.daemon_address.empty()) {
        json_report["daemon"] = {{"address", report.daemon_address}, {"clients", report.num_clients}};
        for (const char* unknown : {"records", "start_up"}) json_report.erase(unknown);
        json_report["settings"].erase("log_level");
    }
    return json_report;
}
