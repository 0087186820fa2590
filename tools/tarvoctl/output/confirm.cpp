#include "output/confirm.hpp"

#include <fmt/format.h>
#include <iostream>
#include <unistd.h>

namespace tarvoctl {

bool confirmed(const std::string& question) {
    if (::isatty(STDIN_FILENO) == 0) {
        return false;
    }
    fmt::print(stderr, "{} [y/N] ", question);
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "yes";
}

bool may_change(const std::vector<std::string>& effects, bool force, const std::string& question) {
    for (const auto& effect : effects) {
        fmt::print(stderr, "tarvoctl: {}\n", effect);
    }
    if (force || (effects.empty() && ::isatty(STDIN_FILENO) == 0)) {
        return true;
    }
    if (confirmed(question)) {
        return true;
    }
    fmt::print(stderr, "tarvoctl: nothing was changed; --force does it without asking\n");
    return false;
}

} // namespace tarvoctl
