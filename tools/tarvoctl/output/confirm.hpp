#pragma once

#include <string>

namespace tarvoctl {

/// Asks on the terminal, and takes only "y" or "yes" for a yes. False at once where standard input
/// is no terminal.
bool confirmed(const std::string& question);

} // namespace tarvoctl
