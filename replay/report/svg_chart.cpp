#include "replay/report/svg_chart.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_replace.h>

#include <algorithm>
#include <cmath>

#include "util/text.h"

namespace replay {

namespace {

// Pixels.
constexpr int kWidth = 1100;
constexpr int kLeft = 80;
constexpr int kRight = 25;
constexpr int kTop = 110;
constexpr int kPlotWidth = kWidth - kLeft - kRight;
constexpr int kPanelHeight = 170;
constexpr int kPanelGap = 30;
constexpr int kBottom = 65;

constexpr double kSecondsPerDay = 86400;
constexpr double kShortestDays = 1 / kSecondsPerDay;

// Text as the content of an SVG element.
std::string Escaped(const std::string& text) {
    return absl::StrReplaceAll(util::Printable(text), {{"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}});
}

// An axis from 0, with round numbers at its ticks.
struct Axis {
    double end;
    double tick;
};

// The axis ends at `largest` or the next tick, and has about `ticks` of them, no closer than `smallest_tick`.
Axis MakeAxis(double largest, double ticks, double smallest_tick) {
    const double least = std::max(largest / ticks, smallest_tick);
    const double power = std::pow(10, std::floor(std::log10(least)));
    double tick = 10 * power;
    for (const double multiple : {5.0, 2.0, 1.0}) {
        if (multiple * power >= least * 0.999999) tick = multiple * power;
    }
    return {.end = std::max(1.0, std::ceil(largest / tick * 0.999999)) * tick, .tick = tick};
}

// The highest value in each of the plot's pixel columns.
std::vector<uint64_t> HighestByColumn(const StepSeries& series, int64_t start, double seconds_per_column) {
    std::vector<uint64_t> highest(kPlotWidth, 0);
    uint64_t value = 0;
    size_t column = 0;
    for (const StepSeries::Point& point : series.points) {
        const auto at = static_cast<size_t>(static_cast<double>(point.time - start) / seconds_per_column);
        while (column < std::min<size_t>(at, kPlotWidth - 1)) highest[++column] = value;
        value = point.value;
        highest[column] = std::max(highest[column], value);
    }
    while (++column < highest.size()) highest[column] = value;
    return highest;
}

class Chart {
public:
    Chart(const std::vector<StepSeries>& series, int64_t start, double days)
        : series_(series),
          start_(start),
          days_{.end = std::max(days, kShortestDays), .tick = MakeAxis(days, 14, 1e-4).tick} {}

    std::string Draw(const std::string& title, const std::string& subtitle) {
        const int height = Top(series_.size()) - kPanelGap + kBottom;
        absl::StrAppend(&svg_, R"(<svg xmlns="http://www.w3.org/2000/svg" width=")", kWidth, R"(" height=")", height);
        absl::StrAppend(&svg_, R"(" viewBox="0 0 )", kWidth, " ", height,
                        R"(" font-family="Helvetica, Arial, sans-serif" font-size="13" fill="#333">)", "\n",
                        R"(<rect width="100%" height="100%" fill="white"/>)", "\n");
        AddText(kLeft, 34, R"(font-size="20" font-weight="bold")", title);
        AddText(kLeft, 56, R"(fill="#666")", subtitle);
        AddLegend();
        for (size_t i = 0; i < series_.size(); ++i) AddPanel(series_[i], Top(i));
        AddDays(Top(series_.size()) - kPanelGap);
        return svg_ + "</svg>\n";
    }

private:
    static int Top(size_t panel) { return kTop + static_cast<int>(panel) * (kPanelHeight + kPanelGap); }

    double X(double days) const { return kLeft + kPlotWidth * days / days_.end; }

    void AddText(double x, double y, const std::string& attributes, const std::string& text) {
        absl::StrAppend(&svg_, R"(<text x=")", x, R"(" y=")", y, R"(" )", attributes, ">", Escaped(text), "</text>\n");
    }

    void AddLine(double x1, double y1, double x2, double y2, const char* colour) {
        absl::StrAppend(&svg_, R"(<line x1=")", x1, R"(" y1=")", y1, R"(" x2=")", x2, R"(" y2=")", y2);
        absl::StrAppend(&svg_, R"(" stroke=")", colour, R"("/>)", "\n");
    }

    void AddLegend() {
        int x = kLeft;
        for (const StepSeries& series : series_) {
            absl::StrAppend(&svg_, R"(<rect x=")", x, R"(" y="74" width="14" height="14" fill=")", series.colour,
                            R"("/>)", "\n");
            AddText(x + 20, 86, "", series.name);
            x += 50 + 8 * static_cast<int>(series.name.size());
        }
    }

    void AddPanel(const StepSeries& series, int top) {
        const double seconds_per_column = days_.end * kSecondsPerDay / kPlotWidth;
        const std::vector<uint64_t> highest = HighestByColumn(series, start_, seconds_per_column);
        const auto largest = static_cast<double>(*std::max_element(highest.begin(), highest.end()));
        const Axis axis = MakeAxis(largest, 5, 1);
        const int bottom = top + kPanelHeight;
        const auto y = [&](double value) { return bottom - kPanelHeight * value / axis.end; };

        for (double value = 0; value <= axis.end; value += axis.tick) {
            AddLine(kLeft, y(value), kLeft + kPlotWidth, y(value), value > 0 ? "#e4e4e4" : "#888");
            AddText(kLeft - 8, y(value) + 4, R"(text-anchor="end")", absl::StrCat(std::llround(value)));
        }
        AddSteps(series.colour, highest, bottom, y);
        const int middle = top + kPanelHeight / 2;
        AddText(24, middle, absl::StrCat(R"(text-anchor="middle" transform="rotate(-90 24 )", middle, ")\""),
                series.name);
    }

    template <typename ToY>
    void AddSteps(const std::string& colour, const std::vector<uint64_t>& values, int bottom, const ToY& y) {
        std::string path;
        for (size_t i = 0; i < values.size(); ++i) {
            if (i > 0 && values[i] == values[i - 1]) continue;
            const double height = std::round(10 * y(static_cast<double>(values[i]))) / 10;
            if (i == 0) {
                absl::StrAppend(&path, "M", kLeft, " ", height);
            } else {
                absl::StrAppend(&path, "H", kLeft + i, "V", height);
            }
        }
        absl::StrAppend(&path, "H", kLeft + kPlotWidth);
        absl::StrAppend(&svg_, R"(<path d=")", path, "V", bottom, "H", kLeft, R"(Z" fill=")", colour,
                        R"(" fill-opacity="0.25"/>)", "\n");
        absl::StrAppend(&svg_, R"(<path d=")", path, R"(" fill="none" stroke=")", colour, R"("/>)", "\n");
    }

    void AddDays(int bottom) {
        for (double day = 0; day <= days_.end * 1.000001; day += days_.tick) {
            AddLine(X(day), bottom, X(day), bottom + 6, "#888");
            AddText(X(day), bottom + 22, R"(text-anchor="middle")", absl::StrCat(day));
        }
        AddText(kLeft + kPlotWidth / 2.0, bottom + 46, R"(text-anchor="middle")", "time since the first job (days)");
    }

    const std::vector<StepSeries>& series_;
    const int64_t start_;
    const Axis days_;
    std::string svg_;
};

}    // namespace

std::string DrawStepChart(const std::string& title, const std::string& subtitle,
                          const std::vector<StepSeries>& series) {
    int64_t start = series.front().points.front().time;
    int64_t end = start;
    for (const StepSeries& one : series) {
        start = std::min(start, one.points.front().time);
        end = std::max(end, one.points.back().time);
    }
    return Chart(series, start, static_cast<double>(end - start) / kSecondsPerDay).Draw(title, subtitle);
}

}    // namespace replay
