#pragma once

#include "common/unique_fd.hpp"
#include "process/member.hpp"

namespace sandbox {

/// How the command ended, as waitpid(2) says it, and whether the sandbox ended before it.
struct command_end {
    int wait_status = 0;
    bool sandbox_died = false;
};

/// Runs the command as a member of the sandbox at the other end of the connection. Waits for its
/// end and, if it was the last one, for the sandbox's. Until then, signals that other processes
/// send to this one go on to the command. See become_member for built.
command_end supervise(unique_fd connection, const world* built,
                      const std::vector<std::string>& command);

/// Ends this process as the command ended: by the same exit status or the same signal.
[[noreturn]] void end_like(int wait_status);

} // namespace sandbox
