// What a replay has counted so far.

#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "replay/trace/workload.h"

struct Figures {
    // Jobs.
    uint64_t jobs_in_trace = 0;
    uint64_t too_wide = 0;
    uint64_t without_run_time = 0;
    uint64_t without_procs = 0;
    uint64_t replayed = 0;    // started
    std::map<std::string, uint64_t> refused;    // at their start, by reason
    uint64_t waited = 0;    // for free HCAs, whatever came of them then
    int64_t total_wait = 0;    // seconds
    int64_t longest_wait = 0;    // seconds

    // Requests ("create", "update", "delete"), "job_start" (find, validate and add together), "job_end" and
    // "pkey_report", by kind, then by the name of the status.
    std::map<std::string, std::map<std::string, uint64_t>> operations;

    // The most at once.
    uint64_t most_hcas = 0;
    uint64_t most_reservations = 0;
    uint64_t most_jobs = 0;
    uint64_t most_trees = 0;

    double seconds = 0;    // that the replay took

    uint64_t Refused() const;    // jobs
    uint64_t Handled() const { return replayed + Refused(); }
    uint64_t Operations() const;    // of all kinds
};

// How often operations of this kind were answered, and how often with anything but success.
uint64_t CountOf(const Figures& figures, const std::string& kind);
uint64_t FailuresOf(const Figures& figures, const std::string& kind);

// The figures before the start: the jobs that are left out.
Figures FiguresOf(const Workload& workload);
