// Job traces in the Standard Workload Format: a line of 18 numbers for each job, and comment lines that begin with ';'.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace replay {

// The fields of a job that the replay needs, rounded to whole numbers. -1: unknown.
struct SwfJob {
    int64_t number;
    int64_t submit_time;    // seconds since the start of the trace
    int64_t wait_time;    // seconds
    int64_t run_time;    // seconds
    int64_t allocated_procs;
    int64_t requested_procs;
    int64_t user;
    int64_t group;
};

struct SwfTrace {
    std::string name;    // the file's, without its directory
    uint64_t size = 0;    // of the file, bytes
    uint64_t hash = 0;    // HashBytes() of the file
    int64_t max_nodes = 0;    // header field MaxNodes; 0: not given
    int64_t max_procs = 0;    // header field MaxProcs; 0: not given
    std::vector<SwfJob> jobs;    // in the order of the file
};

// Throws InputError, which names the file and the line, when the file cannot be read, a job's line is not 18 numbers,
// or there is no job.
SwfTrace ReadSwfTrace(const std::string& path);

}    // namespace replay
