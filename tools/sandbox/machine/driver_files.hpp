#pragma once

#include "shared/paths.hpp"

#include <string_view>

namespace sandbox {

constexpr std::string_view last_part(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

/// Under /proc, /sys/kernel and /dev.
inline constexpr std::string_view proc_file_name = last_part(paths::region_driver);
inline constexpr std::string_view sysfs_file_name = last_part(paths::iommu_driver);
inline constexpr std::string_view mem_file_name = last_part(paths::physical_memory);

} // namespace sandbox
