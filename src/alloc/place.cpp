#include "alloc/place.hpp"

#include "shared/chunk_walk.hpp"
#include "tarvo.h"

namespace {

uint64_t end_of(const dma_chunk_t& chunk) {
    return chunk.pa + chunk.size;
}

/// The first chunk between which and its successor `fits` (predecessor, successor) holds. __HEAD
/// can be the one, __TAIL the other.
template <typename Predicate>
dma_chunk_t* first_predecessor(Predicate fits) {
    dma_chunk_t* prev = dma_chunk_head;
    for (dma_chunk_t& cur : chunks_behind_head()) {
        if (fits(*prev, cur)) {
            return prev;
        }
        prev = &cur;
    }
    return nullptr;
}

} // namespace

uint64_t free_size(dma_chunk_t* a, dma_chunk_t* b) {
    return b->pa - a->pa - a->size;
}

place first_fit(uint32_t size) {
    dma_chunk_t* predecessor = first_predecessor(
        [size](dma_chunk_t& prev, dma_chunk_t& cur) { return free_size(&prev, &cur) >= size; });
    return {predecessor, predecessor != nullptr ? end_of(*predecessor) : 0};
}

place place_of(uint64_t pa) {
    return {first_predecessor([pa](const dma_chunk_t& prev, const dma_chunk_t& cur) {
                return end_of(prev) <= pa && pa < cur.pa;
            }),
            pa};
}
