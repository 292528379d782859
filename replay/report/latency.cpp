#include "replay/report/latency.h"

#include <algorithm>

namespace replay {

LatencySummary Summarize(std::vector<double> latencies) {
    std::sort(latencies.begin(), latencies.end());
    const auto percentile = [&](size_t percent) { return latencies[(latencies.size() * percent + 99) / 100 - 1]; };
    return {.p50 = percentile(50), .p90 = percentile(90), .p99 = percentile(99), .max = latencies.back()};
}

}    // namespace replay
