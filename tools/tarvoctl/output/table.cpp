#include "output/table.hpp"

#include "common/shown.hpp"

#include <algorithm>

namespace tarvoctl {

std::vector<size_t> table::widths(bool titles) const {
    std::vector<size_t> widest;
    for (size_t i = 0; i < _columns.size(); ++i) {
        size_t width = titles ? width_of(_columns[i].title) : 0;
        for (const auto& row : _rows) {
            width = std::max(width, width_of(row[i]));
        }
        widest.push_back(width);
    }
    return widest;
}

void table::append_row(std::string& made, const std::vector<std::string>& row,
                       const std::vector<size_t>& widths) const {
    for (size_t i = 0; i < row.size(); ++i) {
        const std::string blanks(widths[i] - width_of(row[i]), ' ');
        const bool last = i + 1 == row.size();
        if (_columns[i].side == align::right) {
            made += blanks + row[i];
        } else {
            made += row[i] + (last ? "" : blanks);
        }
        made += last ? "\n" : "  ";
    }
}

std::string table::text(bool titles) const {
    const auto widest = widths(titles);
    std::string made;
    if (titles) {
        std::vector<std::string> names;
        for (const auto& each : _columns) {
            names.push_back(each.title);
        }
        append_row(made, names, widest);
    }
    for (const auto& row : _rows) {
        append_row(made, row, widest);
    }
    return made;
}

} // namespace tarvoctl
