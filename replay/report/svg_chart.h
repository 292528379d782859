// Draws quantities that change in steps over time as a picture.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A quantity. Each value holds from its time on until the next one.
struct StepSeries {
    struct Step {
        int64_t time;    // seconds; ascending
        uint64_t value;
    };

    std::string name;    // "HCAs in use"
    std::string colour;    // of SVG: "#1b6ca8"
    std::vector<Step> steps;
};

// A self-contained SVG document: one panel for each series, one above the other, over the same time in days since the
// first step. Where more steps than pixels fall together, the highest shows. Every series has at least one step.
std::string DrawStepChart(const std::string& title, const std::string& subtitle, const std::vector<StepSeries>& series);
