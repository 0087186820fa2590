#pragma once

#include <string>
#include <vector>

namespace tarvoctl {

/// Asks on the terminal, and takes only "y" or "yes" for a yes. False at once where standard input
/// is no terminal.
bool confirmed(const std::string& question);

/// Whether a change that `effects`, in sentences, speaks against may be made: --force says so, or
/// a person at the terminal. Where there is none, only a change that nothing speaks against. The
/// effects are told on standard error.
bool may_change(const std::vector<std::string>& effects, bool force, const std::string& question);

} // namespace tarvoctl
