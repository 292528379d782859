// How long operations took.

#pragma once

#include <map>
#include <string>
#include <vector>

namespace replay {

// Of each operation, in seconds, by its kind as in Figures::operations.
using Latencies = std::map<std::string, std::vector<double>>;

// The smallest latency that is not exceeded in 50, 90, 99 and 100 % of the operations.
struct LatencySummary {
    double p50 = 0;
    double p90 = 0;
    double p99 = 0;
    double max = 0;
};

// In the unit of `latencies`. REQUIRES: at least one.
LatencySummary Summarize(std::vector<double> latencies);

}    // namespace replay
