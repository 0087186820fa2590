#include "alloc/place.hpp"
#include "assertion.hpp"
#include "shared/argument.hpp"
#include "shared/check.hpp"
#include "shared/init.hpp"
#include "shared/lock.hpp"
#include "shared/process_state.hpp"
#include "shared/trace.hpp"
#include "shared/zero.hpp"
#include "tarvo.h"

#include <cstdio>
#include <cstring>
#include <sys/mman.h>

namespace {

constexpr const char* function = "tarvo_alloc_func";

/// In 32 bits, as the records count: a size less than a page below 4 GiB comes out as 0.
uint32_t round_to_pages(uint32_t size) {
    return page_size * ((size + page_size - 1) / page_size);
}

/// The chunk to share: the lowest one of that name, if it has that size. With another size the
/// request is reported and then served like that of a new name.
dma_chunk_t* find_chunk_desc(dma_chunk_t* named, uint32_t size) {
    if (named == nullptr || named->size == size) {
        return named;
    }
    constexpr const char* complaint = "size mismatch, see tarvo\n";
    TARVO_TRACE(trace_failure, "find_chunk_desc", "tarvo: %s() %s", "find_chunk_desc", complaint);
    fprintf(stderr, "tarvo: %s() %s\n", "find_chunk_desc", complaint);
    return nullptr;
}

/// Free elements are zero, so the size distinguishes them from chunks that were found.
bool is_free_element(const dma_chunk_t& chunk) {
    return chunk.size == 0;
}

/// The chunk to share or else a free element; null when all are in use.
dma_chunk_t* find_or_take(dma_chunk_t* named, uint32_t size) {
    dma_chunk_t* chunk = find_chunk_desc(named, size);
    if (chunk != nullptr) {
        return chunk;
    }
    if (dma_chunks->_free == chunk_list::none) {
        TARVO_TRACE(trace_failure, function, "tarvo: %s() no free tarvo chunks left", function);
        return nullptr;
    }
    return dma_chunks->alloc();
}

/// Stores a creator; one that does not fit, by its two ends.
void store_creator(dma_chunk_t* chunk, const char* creator) {
    constexpr int end_bytes = 47;
    const size_t length = strlen(creator);
    if (length < creator_bytes) {
        memcpy(chunk->creator, creator, length + 1);
    } else {
        snprintf(chunk->creator, creator_bytes, "%.*s ... %s", end_bytes, creator,
                 creator + length - end_bytes);
    }
}

void release_cma(const char* name, uint32_t size) {
    if (is_cma) {
        free_cma_allocation(name, size);
    }
}

/// Takes a chunk that devices may have been mapped to off the list. Unmapping comes when the record
/// is already zero, and so ends the process in an assertion with the lock still held. This order
/// stays: whoever allocates on a machine whose IOMMU or memory device refuses is stopped there,
/// instead of going on with a region that is half mapped.
void discard_mapped(dma_chunk_t* chunk) {
    dma_chunks->erase(chunk);
    unmap_chunk_all_devs(chunk);
}

/// Finds the new chunk's place; it has no predecessor when there is no room. `known_room` is where
/// the search for the name came past room for it, if it did.
place find_place(const char* name, uint32_t size, const place& known_room) {
    place found = known_room;
    if (is_cma) {
        const uint64_t pa = get_cma_allocation(name, size);
        if (pa == 0) {
            TARVO_TRACE_AT(trace_failure, __LINE__, function, "Unable to allocate CMA memory\n");
            return {};
        }
        // All bits set, which stands for a failure, is an address that lies nowhere.
        found = place_of(pa);
    } else if (known_room.predecessor == nullptr) {
        found = first_fit(size);
    }
    if (found.predecessor == nullptr) {
        TARVO_TRACE(trace_failure, function, "%s: ran out of tarvo space", function);
    }
    return found;
}

/// Makes `chunk`, fresh from the free chain, a chunk of the list. False when it is gone again.
bool enter_chunk(dma_chunk_t* chunk, const char* name, uint32_t size, const char* creator,
                 const place& known_room) {
    store_creator(chunk, creator);
    memcpy(chunk->name, name, strlen(name) + 1);
    const place found = find_place(name, size, known_room);
    if (found.predecessor == nullptr) {
        // The driver is asked to release the memory even when it gave none.
        dma_chunks->free(chunk);
        release_cma(name, size);
        return false;
    }
    chunk->pa = found.pa;
    chunk->devs.init();
    chunk->size = size;
    dma_chunks->insert_after(found.predecessor, chunk);
    return true;
}

/// Whether the chunk's record is sound; one that is not is discarded, its mappings for devices
/// left as they are.
bool keep_if_sound(dma_chunk_t* chunk, const char* name, uint32_t size) {
    if (chunk_desc_check(chunk) == 0) {
        return true;
    }
    dma_chunks->erase(chunk);
    release_cma(name, size);
    return false;
}

/// Maps the chunk for every device; false when it is gone again.
bool map_for_devices(dma_chunk_t* chunk, const char* name, uint32_t size) {
    if (map_chunk_all_devs(chunk) == 0) {
        return true;
    }
    TARVO_TRACE(trace_failure, function, "%s: Alloc failed due to IOMMU mapping error for %s",
                function, name);
    discard_mapped(chunk);
    release_cma(name, size);
    return false;
}

/// Zeroes the chunk's memory through a mapping of its own. The record is read once: it is not
/// locked, and must not change between mapping and filling.
bool zero_memory(const dma_chunk_t* chunk) {
    const uint32_t bytes = chunk->size;
    void* memory = mmap64(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, mem_fd,
                          static_cast<off64_t>(chunk->pa));
    if (memory == MAP_FAILED) {
        return false;
    }
    const bool zeroed = zero_mapping(memory, bytes);
    munmap(memory, bytes);
    return zeroed;
}

/// Makes a new chunk of a free element and zeroes its memory, for which the lock is let go.
/// False when the chunk is gone again.
bool create_chunk(dma_chunk_t* chunk, const char* name, uint32_t size, const char* creator,
                  const place& known_room, lock_guard& lock) {
    if (!enter_chunk(chunk, name, size, creator, known_room) || !keep_if_sound(chunk, name, size) ||
        !map_for_devices(chunk, name, size)) {
        return false;
    }
    lock.release();
    if (!zero_memory(chunk)) {
        perror("tarvo_alloc: mmap failed!");
        lock.retake();
        discard_mapped(chunk);
        release_cma(name, size);
        return false;
    }
    return true;
}

} // namespace

uint32_t tarvo_alloc_func(const char* name, size_t size, const char* creator) {
    TARVO_TRACE(trace_progress, function, "%s: name %s size %zu creator %s", function, name, size,
                creator);
    if (!is_started()) {
        constexpr const char* complaint = "failed to initialize library";
        TARVO_TRACE(trace_failure, function, "%s: %s", function, complaint);
        fprintf(stderr, "tarvo: %s\n", complaint);
        return 0;
    }
    const size_t len_name = length_of_argument(name);
    TARVO_ASSERT(len_name > 0 && (len_name < name_bytes), "len_name > 0 && (len_name < 50)");
    const size_t len_agent_name = length_of_argument(creator);
    TARVO_ASSERT(len_agent_name > 0, "len_agent_name > 0");
    TARVO_ASSERT(size, "size");

    lock_guard lock;
    if (!lock.held()) {
        TARVO_TRACE(trace_failure, function, "%s: couldn't acquire lock", function);
        return 0;
    }
    const uint32_t rounded = round_to_pages(static_cast<uint32_t>(size));
    const lookup found = look_up(name, rounded);
    dma_chunk_t* chunk = find_or_take(found.named, rounded);
    if (chunk == nullptr) {
        return 0;
    }
    const bool usable = is_free_element(*chunk)
                            ? create_chunk(chunk, name, rounded, creator, found.room, lock)
                            : keep_if_sound(chunk, name, rounded);
    if (!usable) {
        return 0;
    }
    lock.release();
    const uint32_t dma = tarvo_pa_to_dma(chunk->pa);
    TARVO_TRACE(trace_progress, function, "%s: name %s pa 0x%llx dma 0x%x", function, name,
                static_cast<unsigned long long>(chunk->pa), dma);
    return dma;
}
