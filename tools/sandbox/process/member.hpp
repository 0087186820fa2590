#pragma once

#include "machine/world.hpp"

#include <string>
#include <sys/types.h>
#include <vector>

namespace sandbox {

/// What a member has from the tool that started it.
struct member_origin {
    pid_t parent; // the member ends with it
    int socket;   // the connection to the sandbox
    int entered;  // takes the sandbox's mount namespace as soon as the member is in it
};

/// In the process that becomes the command: asks for admission over the socket, enters the sandbox
/// and executes the command there, in the caller's folder and with its environment. The first one
/// builds the world, others (built is null) find it built.
/// Throws failure, also where the command cannot be executed.
[[noreturn]] void become_member(const member_origin& origin, const world* built,
                                const std::vector<std::string>& command);

} // namespace sandbox
