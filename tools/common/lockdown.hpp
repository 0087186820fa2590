#pragma once

#include <fstream>
#include <string>

/// Whether the kernel is locked down, as with Secure Boot: it then refuses /dev/mem to everybody.
inline bool is_locked_down() {
    std::ifstream file{"/sys/kernel/security/lockdown"};
    std::string levels; // the one in force between brackets: "none [integrity] confidentiality"
    return std::getline(file, levels) && levels.find("[none]") == std::string::npos;
}
