#include "ctl/table.h"

#include <algorithm>

namespace reservationctl {
namespace {

constexpr size_t kGap = 2;

// In characters of UTF-8.
size_t Width(const std::string& text) {
    const auto starts_character = [](char byte) { return (byte & '\xc0') != '\x80'; };
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), starts_character));
}

}    // namespace

std::string Table::ToString() const {
    std::vector<std::string> titles;
    for (const Column& column : columns_) titles.push_back(column.title);
    std::vector<size_t> widths(columns_.size());
    const auto widen = [&widths](const std::vector<std::string>& cells) {
        for (size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], Width(cells[i]));
    };
    widen(titles);
    for (const auto& row : rows_) widen(row);

    std::string text;
    const auto append = [&](const std::vector<std::string>& cells) {
        size_t blanks = 0;
        for (size_t i = 0; i < cells.size(); ++i) {
            const size_t padding = widths[i] - Width(cells[i]);
            const bool is_right = columns_[i].align == Align::kRight;
            if (!cells[i].empty()) text += std::string(blanks + (is_right ? padding : 0), ' ') + cells[i];
            blanks = (cells[i].empty() ? blanks + widths[i] : (is_right ? 0 : padding)) + kGap;
        }
        text += '\n';
    };
    const bool has_titles = std::any_of(titles.begin(), titles.end(), [](const auto& title) { return !title.empty(); });
    if (has_titles) append(titles);
    for (const auto& row : rows_) append(row);
    return text;
}

}    // namespace reservationctl
