#include "behaviour_page.hpp"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace {

std::string trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(' ') - first + 1));
}

std::string first_word(std::string_view text) {
    return std::string(text.substr(0, text.find(' ')));
}

/// The cells of a table's line, which begins and ends with "|". One in a code span divides nothing.
std::vector<std::string> cells_of(std::string_view line) {
    std::vector<std::string> cells;
    std::string cell;
    bool in_code = false;
    for (const char c : line.substr(1)) {
        in_code = in_code != (c == '`');
        if (c == '|' && !in_code) {
            cells.push_back(trimmed(cell));
            cell.clear();
        } else {
            cell += c;
        }
    }
    return cells;
}

bool is_separator(std::string_view line) {
    return line.starts_with("|-") && line.find_first_not_of("|-") == std::string_view::npos;
}

/// Reads the page line by line.
class page_reader {
  public:
    behaviour_page read(const std::string& path) {
        std::ifstream lines(path);
        if (!lines) {
            complain("cannot open " + path);
        }
        for (std::string line; std::getline(lines, line);) {
            _number++;
            take(line);
            _line_before = line;
        }
        return std::move(_page);
    }

  private:
    void complain(const std::string& what) {
        _page.problems.push_back("line " + std::to_string(_number) + ": " + what);
    }

    void take(const std::string& line) {
        if (line.starts_with("#")) {
            take_heading(line);
        } else if (line.starts_with("|")) {
            take_table_line(line);
        } else if (_line_before.starts_with("|") && !line.empty()) {
            complain("a table does not end with an empty line");
        } else if (line.starts_with("Command: ") && _in_function) {
            for (const std::string& usage : codes_of(line.substr(line.find(' ')))) {
                _page.sections.back().commands.push_back(first_word(usage));
            }
        }
    }

    void take_heading(const std::string& line) {
        _in_shared_texts = line == "## Shared texts";
        _in_function = line.starts_with("### ");
        if (_in_function) {
            const cell_parts parts = parts_of(line.substr(4));
            if (parts.size() != 1 || parts.front().kind != part_kind::code) {
                complain("not a function's heading");
            }
            _page.sections.push_back({parts.front().text, {}, {}});
        }
    }

    void take_table_line(const std::string& line) {
        const bool first_line = !_line_before.starts_with("|");
        if (_in_shared_texts && !first_line && !is_separator(line)) {
            take_shared_text(cells_of(line));
        } else if (_in_function && first_line) {
            if (line != page_columns) {
                complain("not the columns of a function's table");
            }
        } else if (_in_function && !is_separator(line)) {
            page_section& section = _page.sections.back();
            section.rows.push_back({section.function, static_cast<int>(section.rows.size()) + 1,
                                    _number, cells_of(line)});
        } else if (!_in_function && !_in_shared_texts) {
            complain("a table that no function owns");
        }
    }

    void take_shared_text(const std::vector<std::string>& cells) {
        const std::vector<std::string> codes =
            cells.size() == 2 ? codes_of(cells[1]) : std::vector<std::string>{};
        if (codes.size() != 1 || !_page.shared_texts.emplace(cells.front(), codes.front()).second) {
            complain("not a shared text");
        }
    }

    behaviour_page _page;
    std::string _line_before;
    int _number = 0;
    bool _in_shared_texts = false;
    bool _in_function = false;
};

} // namespace

cell_parts parts_of(std::string_view cell) {
    cell_parts parts;
    while (!cell.empty()) {
        const char mark = cell.front();
        const bool is_marked = mark == '`' || mark == '*';
        const size_t end = is_marked ? cell.find(mark, 1) : cell.find_first_of("`*");
        if (is_marked && end == std::string_view::npos) {
            throw std::runtime_error("it does not end: " + std::string(cell));
        }
        const std::string text =
            is_marked ? std::string(cell.substr(1, end - 1)) : trimmed(cell.substr(0, end));
        if (is_marked || (!text.empty() && text != "," && text != ";")) {
            parts.push_back({mark == '`'   ? part_kind::code
                             : mark == '*' ? part_kind::name
                                           : part_kind::words,
                             text});
        }
        cell.remove_prefix(std::min(cell.size(), is_marked ? end + 1 : end));
    }
    return parts;
}

std::vector<std::string> codes_of(std::string_view cell) {
    std::vector<std::string> codes;
    if (trimmed(cell) == "-") {
        return codes;
    }
    for (const cell_part& part : parts_of(cell)) {
        if (part.kind != part_kind::code) {
            throw std::runtime_error("only code spans are expected: " + std::string(cell));
        }
        codes.push_back(part.text);
    }
    if (codes.empty()) {
        throw std::runtime_error("an empty cell; nothing is written as -");
    }
    return codes;
}

std::vector<page_row> behaviour_page::rows() const {
    std::vector<page_row> all;
    for (const page_section& section : sections) {
        all.insert(all.end(), section.rows.begin(), section.rows.end());
    }
    return all;
}

const behaviour_page& the_page() {
    static const behaviour_page page = page_reader().read(TARVO_BEHAVIOUR_PAGE);
    return page;
}
