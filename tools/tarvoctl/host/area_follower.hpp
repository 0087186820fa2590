#pragma once

#include "area/records.hpp"
#include "common/unique_fd.hpp"
#include "host/area_source.hpp"
#include "host/file_identity.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace tarvoctl {

/// The file of an area that a process has built, also one in use whose flag says that none has;
/// none where there is no such area yet. Throws failure for one that cannot be opened or is cut
/// short.
unique_fd open_built_area(const std::string& path);

/// What one look at the live area found.
struct area_look {
    enum class state {
        absent,       ///< there is no area, or it is not built yet
        locked,       ///< the lock was not free in time
        inconsistent, ///< it was read without the lock, and changed meanwhile
        same,         ///< the area of the last good look
        new_area,     ///< another one, or the first
    };
    state found;
    std::string area;                 ///< path of the file that was looked at
    std::optional<picture> records{}; ///< where the area was read
    std::string obstacle{};           ///< where the lock was not free: who holds it, and what helps
};

/// Reads the live area again and again, while it is made, removed and made anew.
class area_follower {
  public:
    explicit area_follower(area_source source) : _source{std::move(source)} {}

    /// Throws failure where an area cannot be read.
    area_look look();

  private:
    area_look read(const std::string& path, unique_fd file);

    area_source _source; ///< the live area
    /// The file seen last. It stays open, or a new file could be given its inode.
    unique_fd _seen;
    std::optional<file_identity> _identity;
};

/// How the live area is polled.
struct polling_options {
    area_source source;
    std::chrono::milliseconds interval{1000};
};

/// `take` gets what each look found. `wait_until` passes the time to the next one, and returns
/// whether there is to be one. Throws failure where an area cannot be read.
void poll_area(const polling_options& options, const std::function<void(area_look)>& take,
               const std::function<bool(std::chrono::steady_clock::time_point)>& wait_until);

} // namespace tarvoctl
