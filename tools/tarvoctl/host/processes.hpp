#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tarvoctl {

/// A process as /proc shows it. What a stranger may not see is empty.
struct process_info {
    pid_t pid = 0;
    std::string command;                ///< as the kernel calls it: its first 15 bytes
    std::vector<std::string> arguments; ///< none for threads of the kernel
    std::string executable;             ///< path of the program; a deleted one without that mark
    std::string user;                   ///< name, or number where it has none
    char state = '?';                   ///< as in proc(5): R, S, D, T, t, Z
    uint64_t start_ticks = 0;           ///< clock ticks from the machine's start to its own

    bool is_stopped() const { return state == 'T' || state == 't'; }
};

/// All that are there now, in ascending order.
std::vector<pid_t> all_processes();

/// Nothing when it does not exist (any more).
std::optional<process_info> process_of(pid_t pid);

/// A file of a process's folder in /proc, or why it cannot be read.
struct proc_text {
    std::string text;
    int error = 0; ///< 0 where it was read

    /// The process has ended, or never was.
    bool is_gone() const;
};

/// `name`: "maps", "environ", "fdinfo/3".
proc_text read_proc(pid_t pid, const std::string& name);

/// Whether paths mean the same files to it as to this process.
bool shares_our_mounts(pid_t pid);

/// What /proc appends to the path of a file that was removed.
inline constexpr const char* removed_mark = " (deleted)";

/// Its open descriptors; nothing where they may not be seen.
std::optional<std::vector<int>> descriptors_of(pid_t pid);

/// What one of them leads to: a path, with removed_mark where it was removed. Empty where that may
/// not be seen.
std::string file_of(pid_t pid, int descriptor);

} // namespace tarvoctl
