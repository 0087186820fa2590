#include "alloc/place.hpp"

#include "shared/chunk_walk.hpp"
#include "shared/wanted_name.hpp"
#include "tarvo.h"

namespace {

uint64_t end_of(const dma_chunk_t& chunk) {
    return chunk.pa + chunk.size;
}

/// The first chunk between which and its successor `fits` (predecessor, successor) holds. __HEAD
/// can be the one, __TAIL the other; what a damaged list has after __TAIL is not looked at.
template <typename Predicate>
dma_chunk_t* first_predecessor(Predicate fits) {
    dma_chunk_t* prev = dma_chunk_head;
    for (dma_chunk_t& cur : chunks_after_head()) {
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

/// The place directly after that chunk.
place place_after(dma_chunk_t& predecessor) {
    return {&predecessor, end_of(predecessor)};
}

/// Whether so many bytes are free from that place up to `following`.
bool has_room(const place& gap, const dma_chunk_t& following, uint32_t size) {
    return following.pa - gap.pa >= size;
}

/// Whether the last name that was asked for was there. Like the remembered order it can be wrong,
/// and costs time then.
bool names_are_there = false;

/// A function of its own, so that a search for a name alone does not save and restore what this one
/// keeps in registers.
[[gnu::noinline]] lookup look_up_with_gaps(const char* name, uint32_t size) {
    const wanted_name wanted(name);
    place gap = place_after(*dma_chunk_head);
    chunk_walk::iterator at = chunks_between_sentinels().begin();
    for (; !at.at_end(); ++at) {
        dma_chunk_t& chunk = *at;
        if (has_room(gap, chunk, size)) {
            return {first_named(name, {&chunk, dma_chunk_tail}), gap};
        }
        if (wanted.matches(chunk)) {
            return {&chunk, {}};
        }
        gap = place_after(chunk);
    }
    const dma_chunk_t* tail = at.stopped_before();
    return {nullptr, tail != nullptr && has_room(gap, *tail, size) ? gap : place{}};
}

} // namespace

uint64_t free_size(dma_chunk_t* a, dma_chunk_t* b) {
    return b->pa - a->pa - a->size;
}

place first_fit(uint32_t size) {
    dma_chunk_t* predecessor = first_predecessor(
        [size](dma_chunk_t& prev, dma_chunk_t& cur) { return free_size(&prev, &cur) >= size; });
    return predecessor != nullptr ? place_after(*predecessor) : place{};
}

lookup look_up(const char* name, uint32_t size) {
    const lookup found = names_are_there ? lookup{first_named(name, chunks_between_sentinels()), {}}
                                         : look_up_with_gaps(name, size);
    names_are_there = found.named != nullptr;
    return found;
}

place place_of(uint64_t pa) {
    return {first_predecessor([pa](const dma_chunk_t& prev, const dma_chunk_t& cur) {
                return end_of(prev) <= pa && pa < cur.pa;
            }),
            pa};
}
