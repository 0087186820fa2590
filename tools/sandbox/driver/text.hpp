#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

/// Every separator counts: "a,,b" is three parts, the middle one empty.
std::vector<std::string_view> split(std::string_view text, char separator);

/// Hexadecimal with or without 0x.
std::optional<uint64_t> parse_hex(std::string_view text);

/// Lower case, no prefix.
std::string to_hex(uint64_t value);

} // namespace sandbox
