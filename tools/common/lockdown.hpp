#pragma once

#include <fstream>
#include <optional>
#include <string>

/// How far the kernel is locked down, as it is with Secure Boot: "integrity" or "confidentiality",
/// nothing where it is not. It then refuses /dev/mem to everybody, root included.
inline std::optional<std::string> lockdown_level() {
    std::ifstream file{"/sys/kernel/security/lockdown"};
    std::string levels; // the one in force between brackets: "none [integrity] confidentiality"
    std::getline(file, levels);
    const auto first = levels.find('[');
    const auto last = levels.find(']');
    if (first == std::string::npos || last == std::string::npos || last < first) {
        return std::nullopt;
    }
    const std::string level = levels.substr(first + 1, last - first - 1);
    return level == "none" ? std::nullopt : std::optional{level};
}
