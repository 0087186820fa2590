#pragma once

#include <functional>
#include <string>
#include <vector>

namespace sandbox {

/// What the words ask for, ready to be carried out. Help and the version are printed at once.
/// Throws failure, naming the option and value that are wrong.
std::function<void()> parse_command_line(const std::vector<std::string>& arguments);

} // namespace sandbox
