#pragma once

#include <CLI/CLI.hpp>

namespace sandbox {

/// The help of a command besides its options, which the parser lists.
struct help_page {
    const char* purpose;
    const char* usage;
    const char* footer;
};

extern const help_page run_page;
extern const help_page join_page;
extern const help_page rule_page;

void set_help(CLI::App& command, const help_page& page);

} // namespace sandbox
