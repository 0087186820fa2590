#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

/// The number that the whole text is, or none: no blanks, no prefix, no sign for unsigned types.
/// `base` is 10 where it is left out, and not for numbers with a point.
template <typename Number, typename... Base>
std::optional<Number> number_in(std::string_view text, Base... base) {
    Number number{};
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, base...);
    return error == std::errc{} && end == last ? std::optional{number} : std::nullopt;
}
