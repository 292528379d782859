// What a replay has counted so far.

#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace replay {

struct Figures {
    // Jobs.
    uint64_t jobs_in_trace = 0;
    uint64_t too_wide = 0;    // for the fabric; these and the next two were left out
    uint64_t without_run_time = 0;
    uint64_t without_procs = 0;
    uint64_t replayed = 0;    // started
    std::map<std::string, uint64_t> refused;    // at their start, by reason
    uint64_t waited = 0;    // for free HCAs, to be started or refused then
    int64_t total_wait = 0;    // seconds
    int64_t longest_wait = 0;    // seconds

    // By kind, then by the name of the status. Kinds: the requests "create", "update" and "delete"; "job_start" (find,
    // validate and add together), "job_end" and "pkey_report".
    std::map<std::string, std::map<std::string, uint64_t>> operations;

    // The most at once.
    uint64_t most_hcas = 0;
    uint64_t most_reservations = 0;
    uint64_t most_jobs = 0;
    uint64_t most_trees = 0;

    double seconds = 0;    // that the replay took

    uint64_t NumRefused() const;    // jobs
    uint64_t NumHandled() const { return replayed + NumRefused(); }    // jobs

    // Operations: all, those of a kind, and those of a kind that were answered with anything but success.
    uint64_t NumOperations() const;
    uint64_t NumOperations(const std::string& kind) const;
    uint64_t NumFailures(const std::string& kind) const;
};

}    // namespace replay
