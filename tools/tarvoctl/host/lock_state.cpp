#include "host/lock_state.hpp"

#include "host/file_identity.hpp"
#include "host/processes.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// A line about a flock in /proc/locks, or after "lock:" in /proc/PID/fdinfo/FD.
struct flock_line {
    bool waits = false;
    pid_t pid = 0;
    std::string file; ///< "fe:00:1142"
};

/// Reads "1: FLOCK ADVISORY WRITE 4711 fe:00:1142 0 EOF", with "->" for one that waits.
std::optional<flock_line> parse(const std::string& text) {
    std::istringstream words{text};
    flock_line line;
    std::string number;
    std::string kind;
    std::string skipped;
    words >> number >> kind;
    if (kind == "->") {
        line.waits = true;
        words >> kind;
    }
    words >> skipped >> skipped >> line.pid >> line.file;
    return kind == "FLOCK" && words ? std::optional{line} : std::nullopt;
}

std::string name_in_table(const file_identity& file) {
    return fmt::format("{:02x}:{:02x}:{}", file.device_major, file.device_minor, file.inode);
}

/// What an open file of a process has to do with a lock file.
struct open_lock_file {
    bool removed;
    std::vector<flock_line> locks;
};

std::vector<flock_line> locks_of(pid_t pid, int descriptor) {
    constexpr std::string_view key = "lock:";
    std::istringstream lines{read_proc(pid, fmt::format("fdinfo/{}", descriptor)).text};
    std::vector<flock_line> found;
    for (std::string text; std::getline(lines, text);) {
        const auto line = text.starts_with(key) ? parse(text.substr(key.size())) : std::nullopt;
        if (line) {
            found.push_back(*line);
        }
    }
    return found;
}

class lock_reader {
  public:
    explicit lock_reader(const std::string& file) {
        _state.file = file;
        const auto identity = identity_of(file);
        _state.exists = identity.has_value();
        std::error_code ignored;
        _path = std::filesystem::weakly_canonical(file, ignored);
        _identity = identity;
        if (identity) {
            _names.insert(name_in_table(*identity));
        }
    }

    /// `link`: what /proc/PID/fd/FD is shown to lead to. It is looked at first, because following
    /// every descriptor of the machine could wait for a file server that is away.
    void look_at(pid_t pid, int descriptor, const std::string& link) {
        if (link.find("/" + _path.filename().string()) == std::string::npos) {
            return;
        }
        const auto identity = identity_of(fmt::format("/proc/{}/fd/{}", pid, descriptor));
        if (_identity && identity == _identity) {
            adopt(pid, locks_of(pid, descriptor));
        } else if (link == _path.string() + removed_mark && shares_our_mounts(pid)) {
            _state.users.push_back({pid, false, true});
        }
    }

    void adopt_table(const std::string& table) {
        std::istringstream lines{table};
        for (std::string text; std::getline(lines, text);) {
            const auto line = parse(text);
            if (!line || !_names.contains(line->file)) {
                continue;
            }
            if (line->waits) {
                _state.waiting.push_back(line->pid);
            } else {
                adopt_taker(*line);
            }
        }
    }

    lock_state take() { return std::move(_state); }

  private:
    void adopt(pid_t pid, const std::vector<flock_line>& locks) {
        _state.users.push_back({pid, !locks.empty(), false});
        for (const auto& line : locks) {
            // On some file systems the kernel's own name for the file is not what stat(2) says.
            _names.insert(line.file);
            adopt_taker(line);
        }
    }

    void adopt_taker(const flock_line& line) {
        _state.held = true;
        if (line.pid > 0) {
            _state.taker = line.pid;
        }
    }

    lock_state _state;
    std::filesystem::path _path;
    std::optional<file_identity> _identity;
    std::set<std::string> _names;
};

void look_at_process(pid_t pid, std::vector<lock_reader>& readers, std::vector<pid_t>& unseen) {
    const auto descriptors = descriptors_of(pid);
    if (!descriptors) {
        // Threads of the kernel, which have no arguments, hold no such lock.
        const auto process = process_of(pid);
        if (process && !process->arguments.empty()) {
            unseen.push_back(pid);
        }
        return;
    }
    for (const int descriptor : *descriptors) {
        const std::string link = file_of(pid, descriptor);
        for (auto& reader : readers) {
            reader.look_at(pid, descriptor, link);
        }
    }
}

std::optional<std::string> lock_table() {
    std::ifstream file{"/proc/locks"};
    std::ostringstream text;
    if (!file) {
        return std::nullopt;
    }
    text << file.rdbuf();
    return text.str();
}

} // namespace

std::vector<pid_t> lock_state::keepers() const {
    std::vector<pid_t> found;
    for (const auto& user : users) {
        if (user.keeps_lock && (found.empty() || found.back() != user.pid)) {
            found.push_back(user.pid);
        }
    }
    return found;
}

bool lock_state::taker_keeps_it() const {
    const auto all = keepers();
    return std::ranges::find(all, taker) != all.end();
}

std::optional<pid_t> lock_state::holder() const {
    if (!held) {
        return std::nullopt;
    }
    const auto all = keepers();
    if (!all.empty() && !taker_keeps_it()) {
        return all.front();
    }
    return taker != 0 ? std::optional{taker} : std::nullopt;
}

bool waits_for_lock(pid_t pid) {
    std::istringstream lines{lock_table().value_or("")};
    for (std::string text; std::getline(lines, text);) {
        const auto line = parse(text);
        if (line && line->waits && line->pid == pid) {
            return true;
        }
    }
    return false;
}

lock_picture lock_picture_of(const std::vector<std::string>& files) {
    lock_picture made;
    std::vector<lock_reader> readers(files.begin(), files.end());
    for (const pid_t pid : all_processes()) {
        if (pid != ::getpid()) {
            look_at_process(pid, readers, made.unseen);
        }
    }
    const auto table = lock_table();
    made.table_read = table.has_value();
    for (auto& reader : readers) {
        reader.adopt_table(table.value_or(""));
        made.locks.push_back(reader.take());
    }
    return made;
}

} // namespace tarvoctl
