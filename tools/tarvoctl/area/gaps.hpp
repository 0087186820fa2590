#pragma once

#include "area/records.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tarvoctl {

/// What the records say of some bytes of the region.
enum class piece_state {
    free,
    used,        ///< by one chunk
    overlapping, ///< by several chunks
    unknown,     ///< in no chunk that was read, but not all chunks could be
};

/// Bytes side by side of which the records say the same.
struct piece {
    uint64_t pa; ///< of its first byte
    uint64_t bytes;
    piece_state state;
    const chunk_record* owner; ///< null where it is in no chunk; of several the lowest
    const chunk_record* other; ///< where it is in several: the next one
    size_t owners;             ///< how many chunks it is in
};

/// The whole region in ascending address, without holes between the pieces, whatever the order of
/// the records. What chunks claim outside the region is left out.
std::vector<piece> pieces_of(const picture& records);

/// Free bytes between two neighbours.
struct gap {
    uint64_t pa; ///< of its first byte
    uint64_t bytes;
    const chunk_record* before; ///< null: the region's start
    const chunk_record* after;  ///< null: the region's end
};

/// The pieces that are free, in ascending address; none where not all chunks could be read.
std::vector<gap> gaps_of(const picture& records);

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
