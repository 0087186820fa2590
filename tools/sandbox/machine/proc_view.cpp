#include "machine/proc_view.hpp"

#include "common/numbers.hpp"
#include "common/trouble.hpp"

#include <algorithm>
#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <signal.h>
#include <sys/stat.h>

namespace sandbox {

proc_view::proc_view() : _real_proc{::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)} {
    if (!_real_proc) {
        throw failed_call("cannot open /proc");
    }
}

std::optional<uint64_t> proc_view::find(std::string_view name) {
    const std::string terminated{name};
    struct stat unused {};
    if (::fstatat(_real_proc.get(), terminated.c_str(), &unused, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    if (const auto pid = number_in<uint32_t>(name)) {
        return first_process_number + *pid;
    }
    auto found = std::find(_other_names.begin(), _other_names.end(), name);
    if (found == _other_names.end()) {
        found = _other_names.insert(found, terminated);
    }
    return first_number + static_cast<uint64_t>(found - _other_names.begin());
}

std::string proc_view::name_of(uint64_t number) const {
    if (is_process(number)) {
        return std::to_string(number - first_process_number);
    }
    return _other_names.at(number - first_number);
}

std::string proc_view::link_target(uint64_t number) const {
    return std::string{hidden_folder} + "/" + name_of(number);
}

std::vector<std::string> proc_view::names() const {
    std::vector<std::string> all;
    const int folder = ::openat(_real_proc.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream{::fdopendir(folder), &::closedir};
    if (!stream) {
        return all;
    }
    while (const dirent* const entry = ::readdir(stream.get())) {
        const std::string_view name{&entry->d_name[0]};
        if (name != "." && name != "..") {
            all.emplace_back(name);
        }
    }
    return all;
}

pid_t proc_view::process_of_thread(pid_t thread) const {
    constexpr std::string_view key = "\nTgid:\t";
    const std::string path = std::to_string(thread) + "/status";
    const unique_fd status{::openat(_real_proc.get(), path.c_str(), O_RDONLY | O_CLOEXEC)};
    std::array<char, 512> text{};
    const ssize_t length = status ? ::read(status.get(), text.data(), text.size()) : -1;
    if (length <= 0) {
        return thread;
    }
    std::string_view rest{text.data(), static_cast<size_t>(length)};
    const auto at = rest.find(key);
    if (at == std::string_view::npos) {
        return thread;
    }
    rest.remove_prefix(at + key.size());
    return number_in<pid_t>(rest.substr(0, rest.find('\n'))).value_or(thread);
}

std::optional<std::string> proc_view::read_link(const std::string& name) const {
    std::array<char, 64> target{};
    const ssize_t length =
        ::readlinkat(_real_proc.get(), name.c_str(), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string{target.data(), static_cast<size_t>(length)};
}

bool proc_view::kill_others_in(const std::string& mount_namespace) const {
    bool any = false;
    for (const auto& name : names()) {
        const auto pid = number_in<pid_t>(name);
        if (!pid || *pid == ::getpid() || read_link(name + "/ns/mnt") != mount_namespace) {
            continue;
        }
        any = ::kill(*pid, SIGKILL) == 0 || any;
    }
    return any;
}

void proc_view::kill_all_in(const std::string& mount_namespace) const {
    // A process that forks while the list is read escapes one round, hardly a second one.
    constexpr int most_rounds = 20;
    constexpr useconds_t pause_microseconds = 1000;
    for (int round = 0; round < most_rounds && kill_others_in(mount_namespace); ++round) {
        ::usleep(pause_microseconds);
    }
}

void proc_view::kill_remaining() const {
    if (const auto own = read_link("self/ns/mnt")) {
        kill_all_in(*own);
    }
}

} // namespace sandbox
