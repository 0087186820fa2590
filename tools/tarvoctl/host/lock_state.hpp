#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tarvoctl {

/// A process that has a lock file open, and the lock by it or not.
struct lock_file_user {
    pid_t pid;
    bool keeps_lock; ///< the lock lasts as long as it keeps this open file
    bool removed;    ///< its file is one that was removed from under the path
};

/// Who has the lock of a file and who wants it, found out without opening it. The kernel does not
/// record since when.
struct lock_state {
    std::string file;
    bool exists = false;
    bool held = false;
    /// Took the lock, as the kernel has it: it may have ended since, and its number may be another
    /// process's by now. 0 where it is unknown.
    pid_t taker = 0;
    std::vector<lock_file_user> users; ///< those whose descriptors can be seen
    std::vector<pid_t> waiting;        ///< the first one is the next to get it

    /// Those that have to close it before anybody else gets it.
    std::vector<pid_t> keepers() const;
    /// The taker holds it itself, as far as can be seen.
    bool taker_keeps_it() const;
    /// The process that nobody else gets the lock before the end of; nothing where none is known.
    std::optional<pid_t> holder() const;
};

/// The lock files' states at about the same time.
struct lock_picture {
    std::vector<lock_state> locks;
    std::vector<pid_t> unseen; ///< may be keepers, too: their descriptors cannot be seen
    bool table_read = false;   ///< /proc/locks could be read: else nobody is known to wait
};

/// Whether a process stands in the queue for some flock.
bool waits_for_lock(pid_t pid);

lock_picture lock_picture_of(const std::vector<std::string>& files);

} // namespace tarvoctl
