#pragma once

#include <string>
#include <vector>

namespace tarvoctl {

/// Asks on the terminal, and takes only "y" or "yes" for a yes. False at once where standard input
/// is not a terminal.
bool confirmed(const std::string& question);

/// Whether a change with these effects, in sentences, may be made: --force says so, or a person at
/// the terminal. Where there is none, only a change without effects. The
/// effects are reported on standard error.
bool may_change(const std::vector<std::string>& effects, bool force, const std::string& question);

} // namespace tarvoctl
