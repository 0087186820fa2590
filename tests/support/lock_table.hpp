#pragma once

#include <sys/types.h>

// Who waits for a file lock and who holds one, as the kernel lists them in /proc/locks. They throw
// std::runtime_error where it cannot be read.

bool waits_for_a_lock(pid_t pid);
bool holds_a_lock(pid_t pid);
