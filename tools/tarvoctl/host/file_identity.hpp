#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tarvoctl {

/// A file by device and inode, as the kernel writes them into /proc/PID/maps and /proc/locks. Paths
/// will not do: a file can be replaced under its path, and each mount namespace has its own.
struct file_identity {
    unsigned device_major = 0;
    unsigned device_minor = 0;
    uint64_t inode = 0;

    bool operator==(const file_identity&) const = default;
};

/// Of a file that can be looked at; nothing where there is none.
std::optional<file_identity> identity_of(const std::string& path);

/// The same as memory mappings have it, which on some file systems is not what stat(2) says. Maps
/// a page of the file, without access to it; where that is refused, stat(2) has to do.
std::optional<file_identity> mapped_identity_of(const std::string& path);

} // namespace tarvoctl
