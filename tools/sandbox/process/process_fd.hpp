#pragma once

#include "common/unique_fd.hpp"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sandbox {

// The C library's own names for these two lack C linkage in version 2.36.

/// Ready for reading when the process has ended.
inline unique_fd own_process_fd() {
    return unique_fd{static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0))};
}

inline void kill_process(const unique_fd& process) {
    ::syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0);
}

} // namespace sandbox
