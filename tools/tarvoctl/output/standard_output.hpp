#pragma once

#include "common/exit_status.hpp"

#include <functional>

namespace tarvoctl {

/// Writes out what was printed so far. Throws failure when that, or an earlier write, fails.
void flush_output();

/// Carries out work that prints, to the last byte: a command that ends well has written all.
exit_status with_output(const std::function<exit_status()>& work);

} // namespace tarvoctl
