// How long operations took.

#pragma once

#include <map>
#include <string>
#include <vector>

// Of each operation, by its kind, in seconds.
using Latencies = std::map<std::string, std::vector<double>>;

// Percentiles: so many of a hundred operations took at most so long.
struct LatencySummary {
    double p50 = 0;
    double p90 = 0;
    double p99 = 0;
    double max = 0;
};

// `latencies` are those of at least one operation, in any order. The result has their unit.
LatencySummary Summarize(std::vector<double> latencies);
