#pragma once

#include "host/file_identity.hpp"

#include <functional>
#include <string>

namespace tarvoctl {

/// A line of /proc/PID/maps.
struct maps_line {
    uint64_t start = 0; ///< virtual addresses
    uint64_t end = 0;
    std::string permissions; ///< "rw-s"
    uint64_t file_offset = 0;
    file_identity file;
    std::string path; ///< empty where no file is mapped
};

/// Visits the lines of such a file that a file is mapped by.
void for_each_file_mapping(const std::string& maps,
                           const std::function<void(const maps_line&)>& visit);

} // namespace tarvoctl
