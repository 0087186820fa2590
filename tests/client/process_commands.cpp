#include "channel.hpp"
#include "commands.hpp"
#include "no_system_calls.hpp"
#include "own_maps.hpp"
#include "watch.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string done_or_error(bool done) {
    return done ? "done" : throw command_error(std::strerror(errno));
}

std::string pid(const arguments& /*none*/) {
    return std::to_string(getpid());
}

std::string set_variable(const arguments& a) {
    return done_or_error(setenv(a.text(0), a.text(1), 1) == 0);
}

std::string unset_variable(const arguments& a) {
    return done_or_error(unsetenv(a.text(0)) == 0);
}

/// The mask before, in octal. Without an argument it stays as it is.
std::string set_umask(const arguments& a) {
    const mode_t before = umask(a.count() == 0 ? 0 : a.number_32(0));
    if (a.count() == 0) {
        umask(before);
    }
    std::ostringstream text;
    text << "0" << std::oct << before;
    return text.str();
}

std::string change_folder(const arguments& a) {
    return done_or_error(chdir(a.text(0)) == 0);
}

std::string close_descriptor(const arguments& a) {
    return done_or_error(close(a.number_int(0)) == 0);
}

/// The descriptor.
std::string open_file(const arguments& a) {
    const int fd = open(a.text(0), O_RDONLY | O_CLOEXEC);
    return fd < 0 ? throw command_error(std::strerror(errno)) : std::to_string(fd);
}

/// Writes as the program itself does, to its standard output for instance.
std::string write_text(const arguments& a) {
    const std::string_view text = a.text(1);
    return write(a.number_int(0), text.data(), text.size()) < 0 ? std::strerror(errno) : "done";
}

/// Leaves the process room for so many bytes more than it has mapped now.
std::string limit_memory(const arguments& a) {
    std::ifstream statm("/proc/self/statm");
    rlim_t mapped_pages = 0;
    statm >> mapped_pages;
    const rlim_t bytes =
        mapped_pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + rlim_t{a.size(0)};
    const rlimit limit{bytes, RLIM_INFINITY};
    return done_or_error(setrlimit(RLIMIT_AS, &limit) == 0);
}

/// Its path; empty where it is not open.
std::string target_of(int fd) {
    std::array<char, 4096> target{};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), target.data(), target.size() - 1) < 0 ? "" : target.data();
}

std::string describe_descriptor(int fd) {
    const int access = fcntl(fd, F_GETFL) & O_ACCMODE;
    const bool closed_on_exec = (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    return std::to_string(fd) + ":" + target_of(fd) + ":" +
           (access == O_RDWR     ? "rw"
            : access == O_WRONLY ? "w"
                                 : "r") +
           (closed_on_exec ? ":cloexec" : ":kept");
}

/// Every one but the client's own, in ascending order.
std::vector<int> open_descriptors() {
    std::vector<int> open;
    DIR* const folder = opendir("/proc/self/fd");
    while (const dirent* const entry = readdir(folder)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(folder) && fd != channel::command_fd &&
            fd != channel::reply_fd) {
            open.push_back(fd);
        }
    }
    closedir(folder);
    std::sort(open.begin(), open.end());
    return open;
}

/// NUMBER:PATH:ACCESS:FATE for each, in ascending order.
std::string descriptors(const arguments& /*none*/) {
    std::string list;
    for (const int fd : open_descriptors()) {
        list += (list.empty() ? "" : " ") + describe_descriptor(fd);
    }
    return list;
}

/// Whether standard input is open, then the paths of the machine's files that are open, and
/// PATH*BYTES for those that are mapped.
std::string holdings(const arguments& /*none*/) {
    const auto is_of_machine = [](const std::string& path) {
        return path.starts_with("/var/") || path == "/dev/mem";
    };
    std::multiset<std::string> open;
    for (const int fd : open_descriptors()) {
        if (fd > STDERR_FILENO && is_of_machine(target_of(fd))) {
            open.insert(target_of(fd));
        }
    }
    std::string text = fcntl(STDIN_FILENO, F_GETFD) == -1 ? "no input" : "input";
    for (const std::string& path : open) {
        text += " " + path;
    }
    for (const char* path :
         {"/var/tmp/tarvo_lib", "/var/shmem/tarvo_lib", "/var/tmp/tarvo", "/dev/mem"}) {
        if (const uint64_t bytes = bytes_mapped_of(path); bytes != 0) {
            text += std::string(" ") + path + "*" + std::to_string(bytes);
        }
    }
    return text;
}

int error_number(const std::string& name) {
    for (int error = 1; error < 134; error++) {
        const char* const known = strerrorname_np(error);
        if (known != nullptr && name == known) {
            return error;
        }
    }
    throw command_error("no errno is called " + name);
}

std::string fail(const arguments& a) {
    watch::fail(a.text(0), error_number(a.text(1)),
                a.count() < 3 ? 1 : static_cast<unsigned>(a.number(2)));
    return "done";
}

std::string fail_nothing(const arguments& /*none*/) {
    watch::fail_nothing();
    return "done";
}

std::string calls(const arguments& /*none*/) {
    return watch::take_records();
}

std::string pretend_page_bytes(const arguments& a) {
    watch::pretend_page_bytes(static_cast<long>(a.number(0)));
    return "done";
}

std::string no_system_calls(const arguments& /*none*/) {
    return done_or_error(forbid_system_calls());
}

} // namespace

commands process_commands() {
    return {
        {"pid", pid},
        {"setenv NAME VALUE", set_variable},
        {"unsetenv NAME", unset_variable},
        {"umask [MASK]", set_umask},
        {"chdir FOLDER", change_folder},
        {"open PATH", open_file},
        {"close FD", close_descriptor},
        {"write FD TEXT", write_text},
        {"rlimit_as BYTES", limit_memory},
        {"fds", descriptors},
        {"holdings", holdings},
        {"fail CALL ERRNO [NTH]", fail},
        {"fail_nothing", fail_nothing},
        {"calls", calls},
        {"pretend_page_bytes BYTES", pretend_page_bytes},
        {"no_system_calls", no_system_calls},
    };
}
