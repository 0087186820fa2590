#pragma once

#include "common/exit_status.hpp"
#include "host/site.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace tarvoctl {

/// What a tmpfs with the area takes: the area, the copy that repair makes, and some to spare.
inline constexpr uint64_t area_tmpfs_mebibytes = 136;

/// What a file lacks that the library maps.
struct file_shortage {
    std::string path;
    std::string text;    ///< follows the path: "needs 4 KiB more, and ..."
    std::string meaning; ///< for programs
    std::string fix;

    std::string full_text() const { return text + ": " + meaning; }
};

/// What helps where a live area cannot be read to its end, so that it is unknown which devices see
/// its chunks.
std::string replacement_text(const std::string& area);

/// A file that is there, but shorter than the library makes it. One that is empty is as good as
/// new.
std::optional<file_shortage> cut_short_area(const site& here);
/// In simulation, where the memory is a file; also one that is empty, once there is an area.
std::optional<file_shortage> cut_short_memory(const site& here);

/// In simulation: a memory that no longer exists, while chunks are listed in it.
std::optional<file_shortage> lost_memory(const site& here);

/// A file system that lacks room for what the file does not have of its blocks yet, also where the
/// file itself does not exist.
std::optional<file_shortage> area_without_room(const site& here);
/// In simulation. All of the region has room where there is no shortage.
std::optional<file_shortage> memory_without_room(const site& here);
/// The same for one chunk of it.
std::optional<file_shortage> chunk_without_room(const site& here, uint64_t pa, uint32_t size);

/// The first of all these.
std::optional<file_shortage> shortage_in(const site& here);

/// Throws failure where something is lacking.
void refuse_shortage(const std::optional<file_shortage>& lacking, exit_status status);

} // namespace tarvoctl
