#pragma once

#include "world.hpp"

#include <string>
#include <sys/types.h>
#include <vector>

namespace sandbox {

/// What `env` answers for a command, and this tool for its own troubles.
constexpr int exit_trouble = 125;
constexpr int exit_not_executable = 126;
constexpr int exit_not_found = 127;

using command_words = std::vector<std::string>;

/// What a member has from the tool that started it.
struct member_origin {
    pid_t parent; // the member ends with it
    int socket;   // the connection to the sandbox
    int entered;  // takes the name of the sandbox's mount namespace as soon as the member is in it
};

/// In the process that becomes the command: asks for admission over the socket, enters the sandbox
/// and executes the command there, in the caller's folder and with its environment. The first one
/// builds the world, others (built is null) find it built.
/// Throws failure; comes back only with the exit status for a command that cannot be executed.
int become_member(const member_origin& origin, const world* built, const command_words& command);

} // namespace sandbox
