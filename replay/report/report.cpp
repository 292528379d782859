#include "replay/report/report.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>

#include <string_view>

#include "replay/settings_json.h"
#include "util/text.h"

namespace replay {

using nlohmann::json;

namespace {

// In the order of the report.
constexpr const char* kOperationKinds[] = {"create", "update", "delete", "job_start", "job_end", "pkey_report"};

// 18239 as "18,239".
std::string GroupDigits(uint64_t number) {
    std::string digits = absl::StrCat(number);
    for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, 1, ',');
    return digits;
}

// Seconds in the unit that suits them.
std::string FormatDuration(double seconds) {
    if (seconds < 120) return absl::StrFormat("%.0f s", seconds);
    if (seconds < 7200) return absl::StrFormat("%.1f min", seconds / 60);
    if (seconds < 172800) return absl::StrFormat("%.1f h", seconds / 3600);
    return absl::StrFormat("%.1f days", seconds / 86400);
}

std::string FormatMilliseconds(double seconds) { return absl::StrFormat("%.3f ms", 1000 * seconds); }

// A line of the report: its subject where that changes, a name, a value, and a remark.
std::string Line(std::string_view subject, std::string_view name, std::string_view value,
                 std::string_view remark = "") {
    return absl::StrFormat("%-14s %-30s %12s%s%s\n", subject, name, value, remark.empty() ? "" : "  ", remark);
}

std::string Line(std::string_view subject, std::string_view name, uint64_t count, std::string_view remark = "") {
    return Line(subject, name, GroupDigits(count), remark);
}

// ---- For people ----

std::string JobLines(const Report& report) {
    const Figures& figures = report.figures;
    std::string text = Line("jobs", "in the trace", figures.jobs_in_trace);
    text += Line("", "replayed", figures.replayed);
    text += Line("", "refused", figures.NumRefused());
    for (const auto& [reason, count] : figures.refused) text += Line("", "  " + reason, count);
    text += Line("", "too wide for the fabric", figures.too_wide);
    text += Line("", "without a run time", figures.without_run_time);
    text += Line("", "without processors", figures.without_procs);
    std::string waits;
    if (figures.waited > 0) {
        const double mean = static_cast<double>(figures.total_wait) / static_cast<double>(figures.waited);
        waits = absl::StrCat("on average ", FormatDuration(mean), ", at most ",
                             FormatDuration(static_cast<double>(figures.longest_wait)));
    }
    text += Line("", "had to wait for HCAs", figures.waited, waits);
    if (report.is_finished) return text;
    return text + Line("", "running now", report.num_running) + Line("", "waiting now", report.num_waiting);
}

std::string OperationLines(const Figures& figures) {
    std::string text;
    const char* subject = "operations";
    for (const char* kind : kOperationKinds) {
        const auto by_status = figures.operations.find(kind);
        if (by_status == figures.operations.end()) continue;
        for (const auto& [status, count] : by_status->second) {
            text += Line(subject, absl::StrCat(kind, ": ", status), count);
            subject = "";
        }
    }
    return text;
}

std::string EventLines(const ManagerCounters& counters) {
    return Line("events", "reservation created", counters.reservations_created) +
           Line("", "reservation updated", counters.reservations_updated) +
           Line("", "reservation removed", counters.reservations_removed);
}

std::string PeakLines(const Figures& figures) {
    return Line("most at once", "HCAs", figures.most_hcas) + Line("", "reservations", figures.most_reservations) +
           Line("", "jobs", figures.most_jobs) + Line("", "trees", figures.most_trees);
}

std::string LogRecordLines(const ManagerCounters& start_up, const ManagerCounters& replay) {
    std::string text;
    for (size_t i = 0; i < replay.log_records.size(); ++i) {
        const uint64_t at_start_up = start_up.log_records[i];
        text += Line(i == 0 ? "log records" : "", absl::StrCat("level ", i + 1), replay.log_records[i],
                     at_start_up == 0 ? "" : absl::StrCat("and ", GroupDigits(at_start_up), " at start-up"));
    }
    return text;
}

std::string LatencyLines(const Latencies& latencies) {
    std::string text;
    const char* subject = "latency";
    for (const char* kind : kOperationKinds) {
        const auto of_kind = latencies.find(kind);
        if (of_kind == latencies.end()) continue;
        const LatencySummary summary = Summarize(of_kind->second);
        text += Line(subject, absl::StrCat(kind, ": median"), FormatMilliseconds(summary.p50),
                     absl::StrCat("90 % ", FormatMilliseconds(summary.p90), ", 99 % ", FormatMilliseconds(summary.p99),
                                  ", max ", FormatMilliseconds(summary.max)));
        subject = "";
    }
    return text;
}

double OperationsPerSecond(const Figures& figures) {
    return figures.seconds > 0 ? static_cast<double>(figures.NumOperations()) / figures.seconds : 0;
}

std::string SpeedLine(const Figures& figures) {
    return Line("speed", "operations per second", static_cast<uint64_t>(OperationsPerSecond(figures)),
                absl::StrFormat("%s in %.2f s: requests, job starts, job ends and pkey reports",
                                GroupDigits(figures.NumOperations()), figures.seconds));
}

// ---- For programs ----

json EventsJson(const ManagerCounters& counters) {
    return {{"created", counters.reservations_created},
            {"updated", counters.reservations_updated},
            {"removed", counters.reservations_removed}};
}

json LogRecordsJson(const ManagerCounters& counters) {
    json by_level;
    for (size_t i = 0; i < counters.log_records.size(); ++i) by_level[absl::StrCat(i + 1)] = counters.log_records[i];
    return by_level;
}

json JobsJson(const Report& report) {
    const Figures& figures = report.figures;
    return {{"in_trace", figures.jobs_in_trace},
            {"replayed", figures.replayed},
            {"refused", figures.NumRefused()},
            {"refused_by_reason", figures.refused},
            {"too_wide", figures.too_wide},
            {"without_run_time", figures.without_run_time},
            {"without_procs", figures.without_procs},
            {"waited", figures.waited},
            {"total_wait_seconds", figures.total_wait},
            {"longest_wait_seconds", figures.longest_wait},
            {"running", report.num_running},
            {"waiting", report.num_waiting}};
}

json PeaksJson(const Figures& figures) {
    return {{"hcas", figures.most_hcas},
            {"reservations", figures.most_reservations},
            {"jobs", figures.most_jobs},
            {"trees", figures.most_trees}};
}

json LatenciesJson(const Latencies& latencies) {
    json by_kind = json::object();
    for (const auto& [kind, seconds] : latencies) {
        const LatencySummary summary = Summarize(seconds);
        by_kind[kind] = {{"p50", 1000 * summary.p50},
                         {"p90", 1000 * summary.p90},
                         {"p99", 1000 * summary.p99},
                         {"max", 1000 * summary.max}};
    }
    return by_kind;
}

json TimingJson(const Report& report) {
    return {{"seconds", report.figures.seconds},
            {"operations", report.figures.NumOperations()},
            {"operations_per_second", OperationsPerSecond(report.figures)},
            {"latency_ms", LatenciesJson(report.latencies)}};
}

}    // namespace

std::string DescribeSettings(const ReplaySettings& settings) {
    return absl::StrCat(GroupDigits(settings.hcas), " HCAs, a reservation per ", settings.per,
                        settings.auto_by_pkeys ? ", made from pkeys" : "");
}

std::string ReportText(const Report& report) {
    const bool is_in_process = report.daemon_address.empty();
    std::string text =
        absl::StrCat(util::Printable(report.trace_name), " on ", DescribeSettings(report.settings), "\n");
    if (!is_in_process) {
        absl::StrAppend(&text, "through the daemon at ", util::Printable(report.daemon_address), " by ",
                        GroupDigits(report.num_clients), report.num_clients == 1 ? " client" : " clients");
        if (report.num_in_flight > 1) absl::StrAppend(&text, ", each with ", report.num_in_flight, " in flight");
        text += "\n";
    }
    absl::StrAppend(&text, "\n", JobLines(report), OperationLines(report.figures),
                    Line("", "failed requests, as counted", report.replay.failed_requests), EventLines(report.replay),
                    PeakLines(report.figures));
    if (is_in_process) text += LogRecordLines(report.start_up, report.replay);
    text += LatencyLines(report.latencies) + SpeedLine(report.figures);
    if (report.is_finished && report.failed_checks.empty()) text += "\nNothing is left, and nothing went wrong.\n";
    return text;
}

json ReportJson(const Report& report) {
    json members = {{"trace", report.trace_name},
                    {"settings", report.settings},
                    {"finished", report.is_finished},
                    {"jobs", JobsJson(report)},
                    {"operations", report.figures.operations},
                    {"failed_requests", report.replay.failed_requests},
                    {"events", EventsJson(report.replay)},
                    {"most_at_once", PeaksJson(report.figures)},
                    {"failed_checks", report.failed_checks},
                    {"timing", TimingJson(report)}};
    if (report.daemon_address.empty()) {
        members["log_records"] = LogRecordsJson(report.replay);
        members["start_up"] = {{"events", EventsJson(report.start_up)},
                               {"log_records", LogRecordsJson(report.start_up)}};
    } else {
        members["daemon"] = {
            {"address", report.daemon_address}, {"clients", report.num_clients}, {"in_flight", report.num_in_flight}};
        members["settings"].erase("log_level");    // the daemon's log has the records
    }
    return members;
}

}    // namespace replay
