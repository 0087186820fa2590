#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// One mapping of this process.
struct own_mapping {
    uintptr_t start;
    uintptr_t end;
    std::string permissions; ///< such as "rw-s"
    uint64_t file_offset;
    std::string path;
};

std::optional<own_mapping> mapping_at(uintptr_t address);

/// All mappings of that file together.
uint64_t bytes_mapped_of(const std::string& path);

/// The lowest mapping of a file whose path ends so.
std::optional<own_mapping> mapping_of(const std::string& end_of_path);
