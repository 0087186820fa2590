#pragma once

#include "common/failure.hpp"
#include "common/unique_fd.hpp"

#include <chrono>
#include <string>
#include <vector>

namespace tarvoctl {

/// Longest a wait for the lock can be asked to take, which is as good as for ever.
inline constexpr std::chrono::milliseconds longest_timeout = std::chrono::hours{24 * 365};

/// What helps every command against a lock that is not free.
inline constexpr const char* wait_longer = "--timeout waits longer";

/// The failure timed_out, which names the lock file, who holds it as far as that can be seen, and
/// `remedy`.
failure busy_lock(const std::string& file, std::chrono::milliseconds timeout,
                  const std::string& remedy = wait_longer);

/// Holds the library's cross-process lock as long as it lives. Lock files are opened, never
/// created; one that is missing is held by nobody.
class cross_process_lock {
  public:
    /// Waits in the same queue as everybody else, but not longer than `timeout`. Throws failure:
    /// busy_lock(), or unreadable.
    cross_process_lock(const std::vector<std::string>& files, std::chrono::milliseconds timeout,
                       const std::string& remedy = wait_longer);

  private:
    std::vector<unique_fd> _held;
};

} // namespace tarvoctl
