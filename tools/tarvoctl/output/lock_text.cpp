#include "output/lock_text.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

lock_role role_of(const lock_state& lock, pid_t keeper) {
    if (keeper == lock.taker) {
        return lock_role::holds;
    }
    return lock.taker_keeps_it() ? lock_role::shares : lock_role::keeps;
}

/// Only a process that has the file open can have the lock. Where none is seen, the taker is all
/// that is known.
bool is_unexplained(const lock_state& lock) {
    return lock.held && lock.keepers().empty();
}

/// All reported at once: one of them that lives is enough to keep the lock.
lock_trouble trouble_of_keepers(const lock_state& lock, const std::vector<pid_t>& keepers,
                                process_table& processes) {
    const std::string taker = lock.taker == 0 ? "" : fmt::format(" {}", lock.taker);
    const std::string fix = fmt::format("kill {}", fmt::join(keepers, " "));
    const bool one = keepers.size() == 1;
    return {fmt::format("process{} took the lock and ended without giving it back; {} {} inherited "
                        "its open lock file by fork, and nobody gets the lock before {} ({})",
                        taker, processes_text(keepers, processes), one ? "has" : "have",
                        one ? "that ends" : "these end", fix),
            fix};
}

lock_trouble trouble_of_stopped(pid_t pid, process_table& processes) {
    const std::string fix = fmt::format("kill -CONT {}", pid);
    return {fmt::format("{} is stopped: nobody gets the lock before it goes on ({}) or ends (kill "
                        "-KILL {})",
                        processes.text(pid), fix, pid),
            fix};
}

lock_trouble trouble_of_sharer(const lock_state& lock, pid_t pid, process_table& processes) {
    return {fmt::format("{} has inherited the open lock file of {}: if that one ends in the middle "
                        "of a call, the lock stays taken",
                        processes.text(pid), lock.taker),
            fmt::format("end {}, or let it call exec() after fork()", pid)};
}

lock_trouble trouble_of_removed(pid_t pid, process_table& processes) {
    return {fmt::format("{} uses a lock file that was removed: it does not exclude those "
                        "that opened the new one; restart it",
                        processes.text(pid)),
            fmt::format("restart {}", pid)};
}

lock_trouble trouble_of_unseen_holder() {
    return {"the process that has it cannot be seen from here",
            "look as root, and outside of containers"};
}

} // namespace

std::vector<lock_party> parties_of(const lock_state& lock) {
    std::vector<lock_party> parties;
    for (const pid_t pid : lock.keepers()) {
        parties.push_back({role_of(lock, pid), pid});
    }
    if (is_unexplained(lock) && lock.taker != 0) {
        parties.push_back({lock_role::holds, lock.taker});
    }
    std::ranges::stable_sort(parties, {}, &lock_party::role);
    for (const pid_t pid : lock.waiting) {
        parties.push_back({lock_role::waits, pid});
    }
    return parties;
}

std::string waiting_text(const lock_state& lock) {
    const size_t waiting = lock.waiting.size();
    return waiting == 0   ? "nobody waits"
           : waiting == 1 ? "1 waits"
                          : fmt::format("{} wait", waiting);
}

std::vector<lock_trouble> lock_troubles(const lock_state& lock, process_table& processes) {
    std::vector<lock_trouble> troubles;
    std::vector<pid_t> keepers;
    for (const auto& [role, pid] : parties_of(lock)) {
        if (role == lock_role::keeps) {
            keepers.push_back(pid);
        }
        if (role == lock_role::holds && processes.of(pid).is_stopped()) {
            troubles.push_back(trouble_of_stopped(pid, processes));
        }
        if (role == lock_role::shares) {
            troubles.push_back(trouble_of_sharer(lock, pid, processes));
        }
    }
    if (!keepers.empty()) {
        troubles.push_back(trouble_of_keepers(lock, keepers, processes));
    }
    if (is_unexplained(lock) && lock.taker == 0) {
        troubles.push_back(trouble_of_unseen_holder());
    }
    for (const auto& user : lock.users) {
        if (user.removed) {
            troubles.push_back(trouble_of_removed(user.pid, processes));
        }
    }
    return troubles;
}

} // namespace tarvoctl
