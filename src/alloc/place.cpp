#include "alloc/place.hpp"

#include "shared/chunk_walk.hpp"
#include "shared/wanted_name.hpp"
#include "tarvo.h"

namespace {

uint64_t end_of(const dma_chunk_t& chunk) {
    return chunk.pa + chunk.size;
}

/// The first chunk between which and its successor `fits` (predecessor, successor) holds. __HEAD
/// can be the one, __TAIL the other; what a damaged list has behind __TAIL is not looked at.
template <typename Predicate>
dma_chunk_t* first_predecessor(Predicate fits) {
    dma_chunk_t* prev = dma_chunk_head;
    for (dma_chunk_t& cur : chunks_behind_head()) {
        if (fits(*prev, cur)) {
            return prev;
        }
        if (&cur == dma_chunk_tail) {
            break;
        }
        prev = &cur;
    }
    return nullptr;
}

/// The place directly behind that chunk, if there is one.
place behind(dma_chunk_t* predecessor) {
    return {predecessor, predecessor != nullptr ? end_of(*predecessor) : 0};
}

} // namespace

uint64_t free_size(dma_chunk_t* a, dma_chunk_t* b) {
    return b->pa - a->pa - a->size;
}

place first_fit(uint32_t size) {
    return behind(first_predecessor(
        [size](dma_chunk_t& prev, dma_chunk_t& cur) { return free_size(&prev, &cur) >= size; }));
}

survey survey_for(const char* name, uint32_t size) {
    const wanted_name wanted(name);
    dma_chunk_t* named = nullptr;
    dma_chunk_t* predecessor = nullptr;
    dma_chunk_t* prev = dma_chunk_head;
    for (dma_chunk_t& cur : chunks_behind_head()) {
        if (predecessor == nullptr && free_size(prev, &cur) >= size) {
            predecessor = prev;
        }
        if (&cur == dma_chunk_tail) {
            break;
        }
        if (wanted.is_name_of(cur)) {
            named = &cur;
            break;
        }
        prev = &cur;
    }
    return {named, behind(predecessor)};
}

place place_of(uint64_t pa) {
    return {first_predecessor([pa](const dma_chunk_t& prev, const dma_chunk_t& cur) {
                return end_of(prev) <= pa && pa < cur.pa;
            }),
            pa};
}
