#pragma once

#include "area/gaps.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarvoctl {

/// Bytes that a picture of the region draws on one row.
struct map_row {
    uint64_t pa; ///< of its first byte
    uint64_t bytes;
    bool is_folded; ///< several rows' worth of free memory, drawn as one
};

/// A region cut into rows of one scale.
struct map_rows {
    uint64_t row_bytes; ///< of each row but the last one and those that are folded
    std::vector<map_row> rows;
};

/// The finest scale at which there are no more than `most_rows`: `least_row_bytes`, doubled as
/// often as it takes. Rows side by side that are wholly free are folded into one, or a few chunks
/// in a large region would be a speck.
map_rows rows_of(const std::vector<piece>& pieces, uint64_t least_row_bytes, size_t most_rows);

/// The part of a piece that lies on a row, 0 bytes if none does.
piece clipped(const piece& whole, const map_row& row);

} // namespace tarvoctl
