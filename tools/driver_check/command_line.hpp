#pragma once

#include "tarvo/device.hpp"

#include <optional>

namespace driver_check {

struct options {
    std::optional<tarvo::device> device;
    std::optional<tarvo::device> absent_device;
    bool json = false;
};

/// Nothing where help or version was asked for and printed. Throws failure.
std::optional<options> parse_command_line(int argc, const char* const* argv);

} // namespace driver_check
