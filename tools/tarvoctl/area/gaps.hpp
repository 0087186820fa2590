#pragma once

#include "area/records.hpp"

#include <cstdint>
#include <optional>
#include <vector>

namespace tarvoctl {

/// Free bytes between two neighbours.
struct gap {
    uint64_t pa; ///< of its first byte
    uint64_t bytes;
    const chunk_record* before; ///< null: the region's start
    const chunk_record* behind; ///< null: the region's end
};

/// The gaps of the region in ascending address, those of no bytes left out. Chunks that overlap,
/// which only a CMA region can have, leave none between them.
std::vector<gap> gaps_of(const picture& region);

struct free_space {
    uint64_t total_bytes = 0;
    uint64_t largest_bytes = 0;

    /// The share of the free bytes that lies outside the largest gap: 0 is one piece, near 1 dust.
    double fragmentation() const;
};

free_space free_space_of(const std::vector<gap>& gaps);

/// The size that a request for so many bytes takes: whole pages, in 32 bits as the library counts.
uint32_t rounded_size(uint64_t bytes, uint32_t page_bytes);

/// The gap the library would put a chunk of that (rounded) size into: the lowest that is large
/// enough.
std::optional<gap> first_fit(const std::vector<gap>& gaps, uint32_t size);

} // namespace tarvoctl
