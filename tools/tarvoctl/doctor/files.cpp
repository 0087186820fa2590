#include "common/failure.hpp"
#include "doctor/diagnosis.hpp"
#include "host/file_shortage.hpp"
#include "host/folder_fault.hpp"
#include "output/text.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

struct expected_file {
    std::string path;
    std::string role;
    mode_t mode;
    /// What a program has to be allowed: a lock is only opened for reading.
    mode_t needed;
};

std::string owner_of(const struct stat& file) {
    const passwd* const known = ::getpwuid(file.st_uid);
    return known == nullptr ? fmt::format("{}", file.st_uid) : known->pw_name;
}

/// In a sticky folder that others may write to, such as /var/tmp, the kernel may refuse to open a
/// file for creating, as the library does, to all but its owner, root included.
bool is_refused_to_others(const struct stat& file, const struct stat& folder) {
    std::ifstream setting{"/proc/sys/fs/protected_regular"};
    int level = 0;
    setting >> level;
    const bool may_refuse = (level > 0 && (folder.st_mode & S_IWOTH) != 0) ||
                            (level > 1 && (folder.st_mode & S_IWGRP) != 0);
    return may_refuse && (folder.st_mode & S_ISVTX) != 0 && file.st_uid != folder.st_uid;
}

/// False when what is there can be no such file.
bool diagnose_kind(const expected_file& expected, health_report& report) {
    struct stat entry {};
    struct stat target {};
    const std::string& path = expected.path;
    if (::lstat(path.c_str(), &entry) != 0) {
        if (errno == ENOENT) {
            report.add(verdict::note, path,
                       expected.role + " does not exist yet: the first program that needs it makes "
                                       "it");
        } else if (errno != ENOTDIR) { // which was reported of the folder
            report.add(verdict::warning, path,
                       fmt::format("{}: {}", expected.role, error_text(errno)), run_as_root);
        }
        return false;
    }
    std::error_code unread;
    const std::string link = shown(std::filesystem::read_symlink(path, unread).string());
    if (::stat(path.c_str(), &target) != 0) {
        report.add(verdict::error, path,
                   fmt::format("{} cannot be reached: {}{}", expected.role,
                               link.empty() ? "" : "it is a link to " + link + ": ",
                               error_text(errno)),
                   link.empty() ? "" : "rm " + path);
        return false;
    }
    if (!S_ISREG(target.st_mode)) {
        report.add(verdict::error, path, expected.role + " is not a regular file",
                   link.empty() ? fmt::format("mv {0} {0}.old", path) : "rm " + path);
        return false;
    }
    if (!link.empty()) {
        report.add(verdict::warning, path,
                   fmt::format("{} is a link, to {}: processes that reach the same file by another "
                               "path still share it, but removing the link separates them",
                               expected.role, link),
                   fmt::format("end all programs that use it, then mv {} {}",
                               shown(std::filesystem::canonical(path, unread).string()), path));
    }
    return true;
}

/// Says nothing of a mode that is as it should be.
bool diagnose_mode(const expected_file& expected, const struct stat& file, health_report& report) {
    constexpr mode_t permission_bits = 0777;
    const mode_t mode = file.st_mode & permission_bits;
    const std::string fix = fmt::format("chmod {:04o} {}", expected.mode, expected.path);
    const std::string text =
        fmt::format("{} has mode {:04o}, not {:04o}", expected.role, mode, expected.mode);
    if ((expected.needed & ~mode) != 0) {
        report.add(verdict::warning, expected.path,
                   text + ": programs of other users cannot use it", fix);
    } else if ((mode & ~expected.mode) != 0) {
        report.add(verdict::warning, expected.path,
                   text + ": more users than it is meant for can open it", fix);
    } else if (mode != expected.mode) {
        report.add(verdict::note, expected.path, text, fix);
    }
    return mode == expected.mode;
}

bool diagnose_owner(const expected_file& expected, const struct stat& file, const site& here,
                    health_report& report) {
    if (!here.simulation && file.st_uid != 0) {
        report.add(verdict::warning, expected.path,
                   fmt::format("{} belongs to {}, not to root", expected.role, owner_of(file)),
                   fmt::format("chown root {}", expected.path));
        return false;
    }
    struct stat folder {};
    if (here.simulation && ::stat(parent_of(expected.path).c_str(), &folder) == 0 &&
        is_refused_to_others(file, folder)) {
        report.add(
            verdict::warning, expected.path,
            fmt::format("{} belongs to {}, and the kernel (fs.protected_regular) lets nobody "
                        "else, not even root, open it as the library does",
                        expected.role, owner_of(file)),
            fmt::format("chown {} {}, or sysctl fs.protected_regular=0", owner_of(folder),
                        expected.path));
        return false;
    }
    return true;
}

/// The file's state, where it is there at all.
std::optional<struct stat> diagnose_file(const expected_file& expected, const site& here,
                                         health_report& report) {
    struct stat file {};
    if (!diagnose_kind(expected, report) || ::stat(expected.path.c_str(), &file) != 0) {
        return std::nullopt;
    }
    const bool mode_is_good = diagnose_mode(expected, file, report);
    const bool owner_is_good = diagnose_owner(expected, file, here, report);
    if (mode_is_good && owner_is_good) {
        const bool for_all = (expected.mode & S_IROTH) != 0;
        report.add(verdict::ok, expected.path,
                   fmt::format("{}: mode {:04o}, owner {}: {} can use it", expected.role,
                               expected.mode, owner_of(file), for_all ? "any user" : "only root"));
    }
    return file;
}

/// A shortage that ends programs, or only those that touch the missing part.
void report_shortage(const std::optional<file_shortage>& shortage, verdict how,
                     health_report& report) {
    if (shortage) {
        report.add(how, shortage->path, shortage->full_text(), shortage->fix);
    }
}

void diagnose_memory_size(const site& here, health_report& report) {
    report_shortage(lost_memory(here), verdict::error, report);
    report_shortage(cut_short_memory(here), verdict::warning, report);
    report_shortage(memory_without_room(here), verdict::warning, report);
}

void diagnose_area_size(const site& here, const std::optional<struct stat>& file,
                        health_report& report) {
    if (file && file->st_size == 0) {
        report.add(verdict::note, here.area, "the bookkeeping is empty: not built yet");
    }
    if (const auto cut_short = cut_short_area(here)) {
        report.add_damage(cut_short->path, cut_short->full_text(), cut_short->fix);
    }
    report_shortage(area_without_room(here), verdict::error, report);
}

void diagnose_folder_of(const std::string& file, verdict if_unusable, health_report& report) {
    const std::string folder = parent_of(file);
    const bool for_new_file = ::access(file.c_str(), F_OK) != 0;
    if (const auto fault = fault_of_folder(folder, for_new_file)) {
        report.add(if_unusable, folder, fault->text, fault->fix);
    } else {
        report.add(verdict::ok, folder, "the folder exists");
    }
}

/// Simulation, too, has the hardware's lock: a program without the variable makes it with
/// simulation's mode, and one that ran on the hardware has left it with its own.
mode_t mode_of_lock(const std::string& path, const site& here) {
    if (!here.simulation) {
        return hardware_mode;
    }
    if (path == paths::simulated_lock) {
        return simulation_mode;
    }
    struct stat file {};
    constexpr mode_t permission_bits = 0777;
    const bool made_here =
        ::stat(path.c_str(), &file) == 0 && (file.st_mode & permission_bits) == simulation_mode;
    return made_here ? simulation_mode : hardware_mode;
}

void diagnose_locks(const site& here, health_report& report) {
    constexpr mode_t reading = 0444;
    for (const auto& lock : here.locks) {
        const mode_t mode = mode_of_lock(lock, here);
        diagnose_file({lock, "the lock", mode, mode & reading}, here, report);
    }
    if (::access(here.own_lock.c_str(), R_OK) != 0 && errno == EACCES) {
        report.add(verdict::error, here.own_lock,
                   "this user may not open the lock, and programs started from here take it",
                   here.simulation ? fmt::format("set {}, as it is for the others that simulate",
                                                 simulation_variable)
                                   : "run them as root");
    }
}

} // namespace

void diagnose_files(const site& here, health_report& report) {
    const mode_t mode = here.simulation ? simulation_mode : hardware_mode;
    // Processes without the variable lock a file in here, also in simulation.
    const bool locks_there = here.own_lock == paths::hardware_lock;
    diagnose_folder_of(here.area, verdict::error, report);
    diagnose_folder_of(paths::hardware_lock, locks_there ? verdict::error : verdict::note, report);
    if (here.simulation) {
        diagnose_file({here.memory, "the memory", mode, mode}, here, report);
        diagnose_memory_size(here, report);
    }
    const auto area = diagnose_file({here.area, "the bookkeeping", mode, mode}, here, report);
    diagnose_area_size(here, area, report);
    diagnose_locks(here, report);
}

} // namespace tarvoctl
