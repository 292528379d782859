// Draws quantities that change in steps over time as a picture.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace replay {

// A quantity. Each value lasts from its time until the next one.
struct StepSeries {
    struct Point {
        int64_t time;    // seconds; ascending
        uint64_t value;
    };

    std::string name;    // "HCAs in use"
    std::string colour;    // of SVG: "#1b6ca8"
    std::vector<Point> points;
};

// A self-contained SVG document: a panel for each series, one above the other, over the time in days since the first
// point. A column of pixels shows the highest of its values. REQUIRES: at least one series, with at least one point
// each.
std::string DrawStepChart(const std::string& title, const std::string& subtitle, const std::vector<StepSeries>& series);

}    // namespace replay
