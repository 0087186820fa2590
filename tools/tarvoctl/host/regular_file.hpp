#pragma once

#include "common/unique_fd.hpp"

#include <string>

namespace tarvoctl {

/// Opens a file that is there as open(2) does, -1 with errno included, but never waits: a FIFO
/// would until somebody opened its other side. Throws failure for what is not a regular file.
unique_fd open_regular_file(const std::string& path, int access);

} // namespace tarvoctl
