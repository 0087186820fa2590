#include "doctor/diagnosis.hpp"
#include "host/simulated_region.hpp"
#include "output/text.hpp"
#include "shared/layout.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
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

std::string parent_of(const std::string& path) {
    return std::filesystem::path{path}.parent_path();
}

/// In a folder that is everybody's and sticky, such as /var/tmp, the kernel may refuse to open a
/// file for creating, as the library does, to all but its owner, root included.
bool is_refused_to_others(const expected_file& expected, const struct stat& file) {
    std::ifstream setting{"/proc/sys/fs/protected_regular"};
    int level = 0;
    struct stat folder {};
    setting >> level;
    constexpr mode_t sticky_for_all = S_ISVTX | S_IWOTH;
    return level > 0 && ::stat(parent_of(expected.path).c_str(), &folder) == 0 &&
           (folder.st_mode & sticky_for_all) == sticky_for_all && file.st_uid != folder.st_uid;
}

/// False when what is there can be no such file.
bool diagnose_kind(const expected_file& expected, health_report& report) {
    struct stat entry {};
    struct stat target {};
    const std::string& path = expected.path;
    if (::lstat(path.c_str(), &entry) != 0) {
        report.add(errno == ENOENT ? verdict::note : verdict::warning, path,
                   errno == ENOENT ? expected.role + " is not there yet: the first program that "
                                                     "needs it makes it"
                                   : fmt::format("{}: {}", expected.role, std::strerror(errno)));
        return false;
    }
    std::error_code unread;
    const std::string link = shown(std::filesystem::read_symlink(path, unread).string());
    if (::stat(path.c_str(), &target) != 0) {
        report.add(verdict::error, path,
                   fmt::format("{} cannot be reached: {}{}", expected.role,
                               link.empty() ? "" : "it is a link to " + link + ": ",
                               std::strerror(errno)),
                   link.empty() ? "" : "rm " + path);
        return false;
    }
    if (!link.empty()) {
        report.add(verdict::warning, path,
                   fmt::format("{} is a link, to {}: processes that reach the same file by another "
                               "path still share it, but removing the link parts them",
                               expected.role, link));
    }
    if (!S_ISREG(target.st_mode)) {
        report.add(verdict::error, path, expected.role + " is no plain file",
                   fmt::format("mv {0} {0}.old", path));
        return false;
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
    if (here.simulation && is_refused_to_others(expected, file)) {
        report.add(
            verdict::warning, expected.path,
            fmt::format("{} belongs to {}, and the kernel (fs.protected_regular) lets nobody "
                        "else, not even root, open it as the library does",
                        expected.role, owner_of(file)),
            fmt::format("chown root {}, or sysctl fs.protected_regular=0", expected.path));
        return false;
    }
    return true;
}

/// The file's state, where it is there at all.
std::optional<struct stat> diagnose_file(const expected_file& expected, const site& here,
                                         health_report& report) {
    struct stat file {};
    if (!diagnose_kind(expected, report) || ::stat(expected.path.c_str(), &file) != 0)
        return std::nullopt;
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

void diagnose_area_length(const site& here, const struct stat& file, health_report& report) {
    constexpr auto least_bytes = static_cast<off_t>(sizeof(shared_area_t));
    if (file.st_size == 0) {
        report.add(verdict::note, here.area, "the bookkeeping is empty: not built yet");
    } else if (file.st_size < least_bytes) {
        report.add(verdict::error, here.area,
                   fmt::format("the bookkeeping is cut short: {} bytes, an area has at least {}; "
                               "the next program that starts fills it up with zeros",
                               file.st_size, least_bytes),
                   fmt::format("end all programs that use it, then rm {}", here.area));
        report.set_damaged();
    }
}

/// The file has holes: its memory takes room on the disk only when it is written.
void diagnose_room(const site& here, const struct stat& file, health_report& report) {
    struct statvfs disk {};
    if (::statvfs(here.memory.c_str(), &disk) != 0)
        return;
    constexpr uint64_t block_bytes = 512; // of st_blocks, whatever the file system's are
    const uint64_t taken = static_cast<uint64_t>(file.st_blocks) * block_bytes;
    const uint64_t room = static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize;
    if (taken + room < simulated_region.end_pa) {
        report.add(verdict::warning, here.memory,
                   fmt::format("the disk has {} bytes left, and the simulated region can grow by "
                               "{}: a program that writes to memory beyond that ends by SIGBUS",
                               room, simulated_region.end_pa - taken),
                   "make room in " + parent_of(here.memory));
    }
}

void diagnose_folder(const std::string& path, verdict if_missing, health_report& report) {
    struct stat folder {};
    if (::stat(path.c_str(), &folder) != 0) {
        report.add(if_missing, path,
                   fmt::format("the folder cannot be used: {}", std::strerror(errno)),
                   fmt::format("mkdir -p {}; a tmpfiles.d entry makes it at every start", path));
    } else if (!S_ISDIR(folder.st_mode)) {
        report.add(verdict::error, path, "is no folder", fmt::format("mv {0} {0}.old", path));
    } else {
        report.add(verdict::ok, path, "the folder is there");
    }
}

/// Simulation, too, has the hardware's lock: a program without the variable makes it with
/// simulation's mode, and one that ran on the hardware has left it with its own.
mode_t mode_of_lock(const std::string& path, const site& here) {
    if (!here.simulation)
        return hardware_mode;
    if (path == paths::simulated_lock)
        return simulation_mode;
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
    diagnose_folder(parent_of(here.area), verdict::error, report);
    diagnose_folder(parent_of(paths::hardware_lock), locks_there ? verdict::error : verdict::note,
                    report);
    if (here.simulation) {
        const auto memory = diagnose_file({here.memory, "the memory", mode, mode}, here, report);
        if (memory)
            diagnose_room(here, *memory, report);
    }
    const auto area = diagnose_file({here.area, "the bookkeeping", mode, mode}, here, report);
    if (area)
        diagnose_area_length(here, *area, report);
    diagnose_locks(here, report);
}

} // namespace tarvoctl
