#pragma once

#include "area/records.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tarvoctl {

/// Bytes of a chunk, from an offset on.
struct chunk_window {
    std::string name;
    uint64_t offset;
    uint64_t size;
};

/// The window as people write it, either text empty where it is left out: from the chunk's start,
/// to its end. Throws failure for one that does not lie in the chunk.
chunk_window parse_window(const chunk_record& chunk, const std::string& offset,
                          const std::string& size);

/// A window of a chunk in this process, through the library. It stays mapped to the process's end.
/// Throws failure.
std::span<std::byte> map_window(const chunk_window& window, bool writable);

} // namespace tarvoctl
