#pragma once

#include <optional>
#include <string_view>

namespace sandbox {

/// The kernel takes no larger number from a file system.
constexpr int largest_errno = 511;

/// A name from errno.h, or a decimal number between 1 and largest_errno.
std::optional<int> parse_errno(std::string_view text);

} // namespace sandbox
