// Job traces in the Standard Workload Format: one job of 18 numbers a line, and lines of remarks that begin with ';'.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What the replay needs of a job. Times are in seconds; -1 stands for unknown everywhere. Decimal numbers are rounded.
struct SwfJob {
    int64_t number;
    int64_t submit_time;    // since the start of the trace
    int64_t wait_time;
    int64_t run_time;
    int64_t allocated_procs;
    int64_t requested_procs;
    int64_t user;
    int64_t group;
};

struct SwfTrace {
    std::string name;    // of the file, without its directory
    uint64_t size = 0;    // of the file, in bytes
    uint64_t hash = 0;    // HashBytes() of the file
    int64_t max_nodes = 0;    // from the header; 0 when it does not tell
    int64_t max_procs = 0;
    std::vector<SwfJob> jobs;    // in the order of the file
};

// Reads the whole trace. Throws InputError, which names the file and the line, when a line of a job is not 18 numbers,
// and when there is no job at all.
SwfTrace ReadSwfTrace(const std::string& path);
