#include "driver/text.hpp"

#include "common/numbers.hpp"

#include <array>
#include <charconv>

namespace sandbox {

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        const auto at = text.find(separator);
        parts.push_back(text.substr(0, at));
        if (at == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(at + 1);
    }
}

std::optional<uint64_t> parse_hex(std::string_view text) {
    if (text.starts_with("0x")) {
        text.remove_prefix(2);
    }
    return number_in<uint64_t>(text, 16);
}

std::string to_hex(uint64_t value) {
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
    return {digits.data(), end};
}

} // namespace sandbox
