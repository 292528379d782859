#include "replay/report/svg_chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "replay/file.h"

namespace {

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

// Plain text as SVG holds it.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : Printable(text)) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string Number(double number) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.6g", number);
    return text;
}

// An axis from 0 to at least the largest value, with round numbers at its ticks.
struct Axis {
    double end;
    double tick;
};

Axis MakeAxis(double largest, double ticks, double smallest_tick) {
    const double least = std::max(largest / ticks, smallest_tick);
    const double power = std::pow(10, std::floor(std::log10(least)));
    double tick = 10 * power;
    for (const double step : {5.0, 2.0, 1.0}) {
        if (step * power >= least * 0.999999) tick = step * power;
    }
    return {.end = std::max(1.0, std::ceil(largest / tick * 0.999999)) * tick, .tick = tick};
}

// The highest value in each of the plot's pixel columns.
std::vector<uint64_t> HighestByColumn(const StepSeries& series, int64_t start, double seconds_per_column) {
    std::vector<uint64_t> highest(kPlotWidth, 0);
    uint64_t value = 0;
    size_t column = 0;
    for (const StepSeries::Step& step : series.steps) {
        const auto at = static_cast<size_t>(static_cast<double>(step.time - start) / seconds_per_column);
        while (column < std::min<size_t>(at, kPlotWidth - 1)) highest[++column] = value;
        value = step.value;
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
        svg_ = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + Number(kWidth) + "\" height=\"" + Number(height) +
               "\" viewBox=\"0 0 " + Number(kWidth) + " " + Number(height) +
               "\" font-family=\"Helvetica, Arial, sans-serif\" font-size=\"13\" fill=\"#333\">\n"
               "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
        Text(kLeft, 34, "font-size=\"20\" font-weight=\"bold\"", title);
        Text(kLeft, 56, "fill=\"#666\"", subtitle);
        DrawLegend();
        for (size_t i = 0; i < series_.size(); ++i) DrawPanel(series_[i], Top(i));
        DrawDays(Top(series_.size()) - kPanelGap);
        return svg_ + "</svg>\n";
    }

private:
    static int Top(size_t panel) { return kTop + static_cast<int>(panel) * (kPanelHeight + kPanelGap); }

    double X(double days) const { return kLeft + kPlotWidth * days / days_.end; }

    void Text(double x, double y, const std::string& attributes, const std::string& text) {
        svg_ +=
            "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" " + attributes + ">" + Escaped(text) + "</text>\n";
    }

    void StraightLine(double x1, double y1, double x2, double y2, const char* colour) {
        svg_ += "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" + Number(x2) + "\" y2=\"" +
                Number(y2) + "\" stroke=\"" + colour + "\"/>\n";
    }

    void DrawLegend() {
        int x = kLeft;
        for (const StepSeries& series : series_) {
            svg_ +=
                "<rect x=\"" + Number(x) + "\" y=\"74\" width=\"14\" height=\"14\" fill=\"" + series.colour + "\"/>\n";
            Text(x + 20, 86, "", series.name);
            x += 50 + 8 * static_cast<int>(series.name.size());
        }
    }

    void DrawPanel(const StepSeries& series, int top) {
        const double seconds_per_column = days_.end * kSecondsPerDay / kPlotWidth;
        const std::vector<uint64_t> highest = HighestByColumn(series, start_, seconds_per_column);
        const auto largest = static_cast<double>(*std::max_element(highest.begin(), highest.end()));
        const Axis axis = MakeAxis(largest, 5, 1);
        const int bottom = top + kPanelHeight;
        const auto y = [&](double value) { return bottom - kPanelHeight * value / axis.end; };

        for (double value = 0; value <= axis.end; value += axis.tick) {
            StraightLine(kLeft, y(value), kLeft + kPlotWidth, y(value), value > 0 ? "#e4e4e4" : "#888");
            Text(kLeft - 8, y(value) + 4, "text-anchor=\"end\"", std::to_string(std::llround(value)));
        }
        DrawSteps(series.colour, highest, bottom, y);
        const int middle = top + kPanelHeight / 2;
        Text(24, middle, "text-anchor=\"middle\" transform=\"rotate(-90 24 " + Number(middle) + ")\"", series.name);
    }

    template <typename ToY>
    void DrawSteps(const std::string& colour, const std::vector<uint64_t>& values, int bottom, const ToY& y) {
        std::string path;
        for (size_t i = 0; i < values.size(); ++i) {
            if (i > 0 && values[i] == values[i - 1]) continue;
            const double height = std::round(10 * y(static_cast<double>(values[i]))) / 10;
            if (i > 0) path += "H" + Number(kLeft + static_cast<double>(i));
            path += (i > 0 ? "V" : "M" + Number(kLeft) + " ") + Number(height);
        }
        path += "H" + Number(kLeft + kPlotWidth);
        const std::string base = Number(bottom);
        svg_ += "<path d=\"" + path + "V" + base + "H" + Number(kLeft) + "Z\" fill=\"" + colour +
                "\" fill-opacity=\"0.25\"/>\n<path d=\"" + path + "\" fill=\"none\" stroke=\"" + colour + "\"/>\n";
    }

    void DrawDays(int bottom) {
        for (double day = 0; day <= days_.end * 1.000001; day += days_.tick) {
            StraightLine(X(day), bottom, X(day), bottom + 6, "#888");
            Text(X(day), bottom + 22, "text-anchor=\"middle\"", Number(day));
        }
        Text(kLeft + kPlotWidth / 2, bottom + 46, "text-anchor=\"middle\"", "time since the first job (days)");
    }

    const std::vector<StepSeries>& series_;
    const int64_t start_;
    const Axis days_;
    std::string svg_;
};

}    // namespace

std::string DrawStepChart(const std::string& title, const std::string& subtitle,
                          const std::vector<StepSeries>& series) {
    int64_t start = series.front().steps.front().time;
    int64_t end = start;
    for (const StepSeries& one : series) {
        start = std::min(start, one.steps.front().time);
        end = std::max(end, one.steps.back().time);
    }
    return Chart(series, start, static_cast<double>(end - start) / kSecondsPerDay).Draw(title, subtitle);
}
