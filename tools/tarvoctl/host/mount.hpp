#pragma once

#include <string>

namespace tarvoctl {

struct mount {
    std::string point;
    std::string type;
};

/// Where the file system of a path is mounted, also of a path that does not exist.
mount mount_of(const std::string& path);

} // namespace tarvoctl
