#include "output/confirm.hpp"

#include <fmt/format.h>
#include <iostream>
#include <unistd.h>

namespace tarvoctl {

bool confirmed(const std::string& question) {
    if (::isatty(STDIN_FILENO) == 0)
        return false;
    fmt::print(stderr, "{} [y/N] ", question);
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "yes";
}

} // namespace tarvoctl
