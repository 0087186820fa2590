#include "common/quantities.hpp"
#include "doctor/diagnosis.hpp"
#include "host/processes.hpp"
#include "output/lock_text.hpp"
#include "output/process_text.hpp"
#include "shared/paths.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace tarvoctl {

namespace {

/// Which lock file a process takes: the one it has open, or else the one that its environment, as
/// it was when the program began, selects. Nothing where neither can be seen.
std::optional<std::string> lock_of(pid_t pid, const lock_picture& locks) {
    for (const auto& lock : locks.locks) {
        const bool open =
            std::any_of(lock.users.begin(), lock.users.end(), [pid](const lock_file_user& user) {
                return user.pid == pid && !user.removed;
            });
        if (open) {
            return lock.file;
        }
    }
    const proc_text environment = read_proc(pid, "environ");
    if (environment.error != 0) {
        return std::nullopt;
    }
    const std::string assignment = std::string{simulation_variable} + "=";
    const bool set = environment.text.starts_with(assignment) ||
                     environment.text.find('\0' + assignment) != std::string::npos;
    return set ? paths::simulated_lock : paths::hardware_lock;
}

/// For each lock file, those users of the area that take it.
std::map<std::string, std::vector<pid_t>> users_by_lock(const mapped_memory& memory,
                                                        const lock_picture& locks) {
    std::map<std::string, std::vector<pid_t>> found;
    for (const pid_t pid : memory.users) {
        if (const auto lock = lock_of(pid, locks)) {
            found[*lock].push_back(pid);
        }
    }
    return found;
}

void diagnose_sides(const site& here, const mapped_memory& memory, const lock_picture& locks,
                    process_table& processes, health_report& report) {
    auto users = users_by_lock(memory, locks);
    const auto& with = users[paths::simulated_lock];
    const auto& without = users[paths::hardware_lock];
    if (!with.empty() && !without.empty()) {
        report.add(
            verdict::error, here.area,
            fmt::format("its users take two different locks and so do not exclude each other: with "
                        "{0} {1}; without it {2}",
                        simulation_variable, processes_text(with, processes),
                        processes_text(without, processes)),
            fmt::format("start all programs with {0} set, or all without it", simulation_variable));
        return;
    }
    if (memory.users.empty()) {
        report.add(verdict::ok, here.area,
                   fmt::format("no process{} uses it now", seen_only_text(memory)));
        return;
    }
    report.add(verdict::ok, here.area,
               fmt::format("used by {}: {}; they take the same lock",
                           counted(memory.users.size(), "process"),
                           processes_text(memory.users, processes)));
    const bool tool_differs = users[here.own_lock].empty() && users.size() > 1;
    if (here.simulation && tool_differs) {
        report.add(verdict::warning, "environment",
                   fmt::format("programs started from here take {}, those that run take another "
                               "lock: they would not exclude each other",
                               here.own_lock),
                   fmt::format("{} {} here, as for the others",
                               simulation_is_asked_for() ? "unset" : "set", simulation_variable));
    }
}

void diagnose_locks(const lock_picture& locks, process_table& processes, health_report& report) {
    for (const auto& lock : locks.locks) {
        const auto troubles = lock_troubles(lock, processes);
        for (const auto& trouble : troubles) {
            report.add(verdict::warning, lock.file, trouble.text, trouble.fix);
        }
        if (!lock.exists || !troubles.empty()) {
            continue;
        }
        const auto parties = parties_of(lock);
        report.add(lock.held ? verdict::note : verdict::ok, lock.file,
                   lock.held ? fmt::format("held now by {}, {}; if that lasts, see tarvoctl lock",
                                           processes.text(parties.front().pid), waiting_text(lock))
                             : "free now");
    }
}

/// A file that was removed from under its path, and what that means for those who still use it.
void diagnose_removed(const std::string& path, const std::vector<pid_t>& users, const char* meaning,
                      process_table& processes, health_report& report) {
    if (users.empty()) {
        return;
    }
    report.add(verdict::error, path,
               fmt::format("was removed under processes that still use the removed one, and {}: {}",
                           meaning, processes_text(users, processes)),
               "restart them");
}

} // namespace

void diagnose_users(const site& here, health_report& report) {
    const lock_picture locks = lock_picture_of(here.locks);
    const mapped_memory memory = mappings_of(here);
    process_table processes;
    diagnose_locks(locks, processes, report);
    diagnose_sides(here, memory, locks, processes, report);
    diagnose_removed(here.area, memory.users_of_removed, "share nothing with those that start now",
                     processes, report);
    diagnose_removed(here.memory, memory.users_of_removed_memory,
                     "do not see what those that start now write to a chunk", processes, report);
    if (!memory.is_complete()) {
        report.add(verdict::note, "processes", unseen_text(memory, processes));
    }
}

} // namespace tarvoctl
