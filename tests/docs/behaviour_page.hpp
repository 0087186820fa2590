#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

// docs/behaviour.md as data. What cannot be read is kept and reported, never passed over.

/// A code span, a name in italics, or the words between them.
enum class part_kind { code, name, words };

struct cell_part {
    part_kind kind;
    std::string text;
};
using cell_parts = std::vector<cell_part>;

/// Throws std::runtime_error for a mark that is not closed. Words that only separate, "," and
/// ";", are left out.
cell_parts parts_of(std::string_view cell);

/// The code spans of a cell that holds nothing else; none for a cell that is "-".
std::vector<std::string> codes_of(std::string_view cell);

struct page_row {
    std::string function;
    int number = 0; ///< within its section, from 1
    int line = 0;   ///< of the page
    std::vector<std::string> cells;
};

struct page_section {
    std::string function;
    std::vector<std::string> commands; ///< first words of the client's commands that drive it
    std::vector<page_row> rows;
};

struct behaviour_page {
    std::map<std::string, std::string> shared_texts; ///< with "\n" still as two characters
    std::vector<page_section> sections;
    std::vector<std::string> problems; ///< with line numbers

    std::vector<page_row> rows() const;
};

/// The columns of every function's table.
inline constexpr std::string_view page_columns =
    "| Situation | Given | Call | Result | Standard error | Driver | Lock | Changes |";

const behaviour_page& the_page();
