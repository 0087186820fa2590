#include "lock_table.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

/// Lines are "NUMBER: FLOCK ADVISORY WRITE PID ...", with an arrow before the kind for who waits.
bool is_listed(pid_t pid, bool as_waiting) {
    std::ifstream locks("/proc/locks");
    if (!locks) {
        throw std::runtime_error("cannot read /proc/locks");
    }
    for (std::string line; std::getline(locks, line);) {
        std::istringstream fields(line);
        std::string number;
        std::string kind;
        std::string manner;
        std::string access;
        pid_t owner = 0;
        fields >> number >> kind;
        const bool waits = kind == "->";
        if (waits) {
            fields >> kind;
        }
        fields >> manner >> access >> owner;
        if (waits == as_waiting && owner == pid) {
            return true;
        }
    }
    return false;
}

} // namespace

bool waits_for_a_lock(pid_t pid) {
    return is_listed(pid, true);
}

bool holds_a_lock(pid_t pid) {
    return is_listed(pid, false);
}
