#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

/// Every separator counts: "a,,b" is three parts, the middle one empty.
std::vector<std::string_view> split(std::string_view text, char separator);

/// The whole text must be the number; no sign for unsigned types, no blanks, no prefix.
template <typename Number>
std::optional<Number> parse_number(std::string_view text, int base = 10) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc{} || stop != end) {
        return std::nullopt;
    }
    return value;
}

/// Hexadecimal with or without 0x.
std::optional<uint64_t> parse_hex(std::string_view text);

/// Lower case, no prefix.
std::string to_hex(uint64_t value);

/// Understands \t, \n and \\; other characters stand for themselves.
std::string unescape(std::string_view text);

} // namespace sandbox
