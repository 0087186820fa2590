#pragma once

#include "shared/layout.hpp"

#include <cstdint>

/// Where a new chunk goes: directly after `predecessor` in the list; null when no gap is large
/// enough.
struct place {
    dma_chunk_t* predecessor;
    uint64_t pa;
};

/// The low end of the first gap of at least `size` bytes, among all chunks.
place first_fit(uint32_t size);

/// What the search for a name has found on its way.
struct lookup {
    dma_chunk_t* named; ///< the lowest chunk of that name; null when there is none
    /// The first gap of that many bytes below it, or below __TAIL; null also where gaps were not
    /// looked at.
    place room;
};

/// Most names that do not exist are about to be placed, so the gaps are looked at on the way,
/// unless the last name that was asked for was there: then this one may be, too, and a search for a
/// name alone is shorter. A wrong guess takes first_fit() as well.
lookup look_up(const char* name, uint32_t size);

/// The place in the list of a chunk whose address the kernel driver chose. Its end is not looked
/// at: the driver answers for that.
place place_of(uint64_t pa);
