#pragma once

#include "command_line.hpp"

namespace sandbox {

/// The first two end the process as the command ended. All throw failure.
[[noreturn]] void run(const run_options& wanted);
[[noreturn]] void join(const join_options& wanted);
void change_rules(const rule_options& wanted);

} // namespace sandbox
