#include "driver/errno_names.hpp"

#include "common/numbers.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace sandbox {

namespace {

/// Second names of numbers that the C library knows by their first name only.
constexpr std::array<std::pair<std::string_view, int>, 3> second_names{{
    {"EWOULDBLOCK", EWOULDBLOCK},
    {"EDEADLOCK", EDEADLOCK},
    {"ENOTSUP", ENOTSUP},
}};

std::optional<int> number_of_name(std::string_view name) {
    for (const auto& [second_name, number] : second_names) {
        if (name == second_name) {
            return number;
        }
    }
    for (int number = 1; number <= largest_errno; ++number) {
        const char* const known = ::strerrorname_np(number);
        if (known != nullptr && name == known) {
            return number;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<int> parse_errno(std::string_view text) {
    if (const auto number = number_in<int>(text)) {
        if (*number < 1 || *number > largest_errno) {
            return std::nullopt;
        }
        return number;
    }
    return number_of_name(text);
}

} // namespace sandbox
