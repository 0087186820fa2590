#include "host/processes.hpp"

#include "common/numbers.hpp"
#include "common/unique_fd.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <pwd.h>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

std::string folder_of(pid_t pid) {
    return fmt::format("/proc/{}/", pid);
}

/// The numbers among the names in a folder, in ascending order. The entries' kinds are not looked
/// at: where /proc is a stand-in they are links. Nothing where the folder cannot be read.
std::optional<std::vector<int>> numbers_in(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> stream{::opendir(folder.c_str()), &::closedir};
    if (!stream) {
        return std::nullopt;
    }
    std::vector<int> numbers;
    while (const dirent* const entry = ::readdir(stream.get())) {
        if (const auto number = number_in<int>(&entry->d_name[0])) {
            numbers.push_back(*number);
        }
    }
    std::ranges::sort(numbers);
    return numbers;
}

std::string executable_of(pid_t pid) {
    std::array<char, 4096> target{};
    const ssize_t length =
        ::readlink((folder_of(pid) + "exe").c_str(), target.data(), target.size());
    std::string path(target.data(), length < 0 ? 0 : static_cast<size_t>(length));
    if (path.ends_with(removed_mark)) {
        path.resize(path.size() - std::string_view{removed_mark}.size());
    }
    return path;
}

/// The value after "KEY:" in a status file.
std::string field_of(const std::string& status, const std::string& key) {
    const auto at = status.find("\n" + key + ":\t");
    if (at == std::string::npos) {
        return {};
    }
    const auto from = at + key.size() + 3;
    return status.substr(from, status.find_first_of("\t\n", from) - from);
}

std::string user_called(const std::string& number) {
    const passwd* const known =
        number.empty() ? nullptr
                       : ::getpwuid(static_cast<uid_t>(std::strtoul(number.c_str(), nullptr, 10)));
    return known == nullptr ? number : known->pw_name;
}

std::vector<std::string> split_at_nul(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream{text};
    for (std::string part; std::getline(stream, part, '\0');) {
        parts.push_back(part);
    }
    return parts;
}

/// Reads "PID (COMMAND) STATE ...", where the command may hold blanks and brackets.
void adopt_stat(process_info& process, const std::string& stat) {
    const auto open = stat.find('(');
    const auto close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return;
    }
    process.command = stat.substr(open + 1, close - open - 1);
    std::istringstream rest{stat.substr(close + 1)};
    rest >> process.state;
    constexpr int fields_before_start = 18; // those from ppid to itrealvalue
    std::string skipped;
    for (int i = 0; i < fields_before_start; ++i) {
        rest >> skipped;
    }
    rest >> process.start_ticks;
}

} // namespace

bool proc_text::is_gone() const {
    return error == ENOENT || error == ESRCH;
}

proc_text read_proc(pid_t pid, const std::string& name) {
    const unique_fd file{::open((folder_of(pid) + name).c_str(), O_RDONLY | O_CLOEXEC)};
    if (!file) {
        return {{}, errno};
    }
    proc_text read{};
    std::array<char, 65536> piece{};
    for (;;) {
        const ssize_t length = ::read(file.get(), piece.data(), piece.size());
        if (length == 0) {
            return read;
        }
        if (length < 0) {
            return {{}, errno};
        }
        read.text.append(piece.data(), static_cast<size_t>(length));
    }
}

std::vector<pid_t> all_processes() {
    return numbers_in("/proc").value_or(std::vector<pid_t>{});
}

bool shares_our_mounts(pid_t pid) {
    struct stat ours {};
    struct stat theirs {};
    return ::stat("/proc/self/ns/mnt", &ours) == 0 &&
           ::stat((folder_of(pid) + "ns/mnt").c_str(), &theirs) == 0 &&
           ours.st_ino == theirs.st_ino;
}

std::optional<std::vector<int>> descriptors_of(pid_t pid) {
    return numbers_in(folder_of(pid) + "fd");
}

std::string file_of(pid_t pid, int descriptor) {
    std::error_code ignored;
    return std::filesystem::read_symlink(fmt::format("{}fd/{}", folder_of(pid), descriptor),
                                         ignored);
}

std::optional<process_info> process_of(pid_t pid) {
    const proc_text stat = read_proc(pid, "stat");
    if (stat.error != 0) {
        return std::nullopt;
    }
    process_info process;
    process.pid = pid;
    adopt_stat(process, stat.text);
    process.arguments = split_at_nul(read_proc(pid, "cmdline").text);
    process.executable = executable_of(pid);
    process.user = user_called(field_of(read_proc(pid, "status").text, "Uid"));
    return process;
}

} // namespace tarvoctl
