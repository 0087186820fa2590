#pragma once

#include "behaviour_page.hpp"

#include <string>
#include <vector>

/// What a row says, or what was seen, in the words of the page.
struct behaviour {
    std::string result;
    std::string standard_error;
    std::vector<std::string> driver;
    std::string lock;
    std::string changes;
};

struct row_result {
    behaviour expected;
    behaviour seen;
};

/// Builds the row's machine, does what is given, makes the call. Throws std::exception for a row
/// that it does not understand, with what is wrong in it.
row_result run(const page_row& row);
