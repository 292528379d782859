// Text in aligned columns.

#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace reservationctl {

class Table {
public:
    enum class Align { kLeft, kRight };

    struct Column {
        std::string title;
        Align align = Align::kLeft;
    };

    // A table without titles has no title line.
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // One cell for each column.
    void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

    // Lines that end in a newline each, and in nothing blank before it. Characters are taken to be one column wide.
    std::string ToString() const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}    // namespace reservationctl
