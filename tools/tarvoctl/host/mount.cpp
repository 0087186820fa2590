#include "host/mount.hpp"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <mntent.h>
#include <system_error>

namespace tarvoctl {

namespace {

bool lies_on(const std::string& path, const std::string& point) {
    return path == point ||
           (path.starts_with(point) && (point.ends_with('/') || path[point.size()] == '/'));
}

} // namespace

/// The last one over the longest beginning of the path.
mount mount_of(const std::string& path) {
    std::error_code unresolved;
    const std::string resolved = std::filesystem::weakly_canonical(path, unresolved).string();
    mount found{"/", ""};
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> mounts{
        ::setmntent("/proc/self/mounts", "re"), &::endmntent};
    while (const mntent* each = mounts ? ::getmntent(mounts.get()) : nullptr) {
        const std::string point{each->mnt_dir};
        if (point.size() >= found.point.size() && lies_on(resolved, point)) {
            found = {point, each->mnt_type};
        }
    }
    return found;
}

} // namespace tarvoctl
