#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

/// The number that the whole text is, or none: no sign for unsigned types, no blanks, no prefix.
template <typename Number>
std::optional<Number> number_in(std::string_view text, int base = 10) {
    Number number{};
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, base);
    return error == std::errc{} && end == last ? std::optional{number} : std::nullopt;
}
