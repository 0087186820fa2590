#pragma once

#include "driver/rule.hpp"
#include "machine/world.hpp"

#include <string>
#include <vector>

namespace sandbox {

struct run_options {
    world chosen;
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

/// The first two end the process as the command ended. All throw failure.
[[noreturn]] void run(const run_options& wanted);
[[noreturn]] void join(const join_options& wanted);
void change_rules(const rule_options& wanted);

} // namespace sandbox
