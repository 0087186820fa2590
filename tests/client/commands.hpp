#pragma once

#include "arguments.hpp"

#include <string>
#include <string_view>
#include <vector>

/// One command of the client. `usage` is its name and arguments; those in [brackets] may be left
/// out.
struct command {
    std::string_view usage;
    std::string (*run)(const arguments&);
};
using commands = std::vector<command>;

/// Calls into the library under test; what they ask of the C library is watched.
commands chunk_commands();
commands device_commands();
commands record_commands();

/// What a process can do to itself, and to memory it has mapped.
commands memory_commands();
commands process_commands();
