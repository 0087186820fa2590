#pragma once

#include <string>
#include <vector>

namespace tarvoctl {

enum class align { left, right };

struct column {
    std::string title;
    align side = align::left;
};

/// Lines up texts in columns that are as wide as they need to be, two blanks apart.
class table {
  public:
    explicit table(std::vector<column> columns) : _columns{std::move(columns)} {}

    /// As many texts as there are columns.
    void add(std::vector<std::string> row) { _rows.push_back(std::move(row)); }

    /// The titles, if they are wanted, and all rows, a line each; the last column has no blanks
    /// after it.
    std::string text(bool titles = true) const;

  private:
    std::vector<size_t> widths(bool titles) const;
    void append_row(std::string& made, const std::vector<std::string>& row,
                    const std::vector<size_t>& widths) const;

    std::vector<column> _columns;
    std::vector<std::vector<std::string>> _rows;
};

} // namespace tarvoctl
