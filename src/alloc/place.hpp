#pragma once

#include "shared/layout.hpp"

#include <cstdint>

/// Where a new chunk goes: directly behind `predecessor` in the list; null when there is no room.
struct place {
    dma_chunk_t* predecessor;
    uint64_t pa;
};

/// The low end of the first gap of at least `size` bytes.
place first_fit(uint32_t size);

/// The place in the list of a chunk whose address the kernel driver chose. Its end is not looked
/// at: the driver answers for that.
place place_of(uint64_t pa);
