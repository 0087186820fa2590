#pragma once

#include "driver/rule.hpp"
#include "machine/world.hpp"

#include <string>
#include <variant>
#include <vector>

namespace sandbox {

struct run_options {
    world played;
    std::vector<rule> rules;
    std::string log_path;
    std::string control_path;
    std::vector<std::string> command;
};

struct join_options {
    std::string control_path;
    std::vector<std::string> command;
};

struct rule_options {
    std::string control_path;
    bool clear = false;
    bool list = false;
    std::vector<std::string> rules;
};

/// The text is printed and that is all.
struct help_wanted {
    std::string text;
};

using options = std::variant<run_options, join_options, rule_options, help_wanted>;

/// Throws trouble, naming the option and value that are wrong.
options parse_command_line(const std::vector<std::string>& arguments);

} // namespace sandbox
