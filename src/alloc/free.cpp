#include "assertion.hpp"
#include "shared/argument.hpp"
#include "shared/chunk_walk.hpp"
#include "shared/init.hpp"
#include "shared/lock.hpp"
#include "shared/trace.hpp"
#include "shared/wanted_name.hpp"
#include "tarvo.h"

// Free space has no record: it is the gap between neighbours, so taking a chunk off the list is all
// that it takes to join its space to the gaps on both sides.

int tarvo_free(const char* name) {
    const size_t len = length_of_argument(name);
    TARVO_ASSERT(len, "len");
    if (!library_is_ready()) {
        return -1;
    }
    const lock_guard lock;
    if (!lock.held()) {
        return -1;
    }
    // Unlike every other lookup this one compares __TAIL, too.
    dma_chunk_t* chunk = first_named(name, chunks_after_head());
    if (chunk == nullptr) {
        return -1;
    }
    if (is_cma && free_cma_allocation(name, chunk->size) < 0) {
        return -1;
    }
    TARVO_TRACE(trace_progress, "tarvo_free", "%s: name %s", "tarvo_free", chunk->name);
    if (unmap_chunk_all_devs(chunk) != 0) {
        return -1;
    }
    dma_chunks->erase(chunk);
    return 0;
}
