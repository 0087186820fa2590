#include "assertion.hpp"
#include "shared/argument.hpp"
#include "shared/check.hpp"
#include "shared/chunk_walk.hpp"
#include "shared/init.hpp"
#include "shared/lock.hpp"
#include "shared/trace.hpp"
#include "shared/wanted_name.hpp"
#include "tarvo.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>

// Chunks in the calling process. A mapping belongs to the process alone and is recorded nowhere.

namespace {

/// A piece of a chunk, in bytes. Sums and differences are taken in 32 bits, as records count.
struct window {
    size_t offset;
    size_t size;

    uint32_t end() const { return static_cast<uint32_t>(offset + size); }

    /// Size 0 stands for the rest of the chunk. An offset beyond the chunk's end wraps here and is
    /// caught by fits().
    void complete(const dma_chunk_t& chunk) {
        if (size == 0) {
            size = chunk.size - static_cast<uint32_t>(offset);
        }
    }

    bool fits(const dma_chunk_t& chunk) const {
        return offset <= chunk.size && end() <= chunk.size && size <= chunk.size;
    }
};

/// Traces tarvo_map's arguments and, after them, what became of the call; `error` is an errno. The
/// record carries the line of whoever calls this.
void trace_map(const char* name, const window& part, const char* outcome, int error = 0,
               int line = __builtin_LINE()) {
    TARVO_TRACE_AT(trace_progress, line, "tarvo_map",
                   Zul::format("%s: name %s off %zx size %zx%s%s", "tarvo_map", name, part.offset,
                               part.size, outcome, error != 0 ? strerror(error) : ""));
}

/// Neither offset nor size is rounded: mmap refuses what does not lie on a page.
void* map_window(const char* name, bool writable, const window& part, const dma_chunk_t& chunk) {
    const int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void* va = mmap64(nullptr, part.size, prot, MAP_SHARED, mem_fd,
                      static_cast<off64_t>(chunk.pa + part.offset));
    if (va == MAP_FAILED) {
        trace_map(name, part, " mmap - ", errno);
        return nullptr;
    }
    return va;
}

/// Unmaps and reports a failure, with the chunk's size even where another size was given.
void unmap_window(void* va, size_t size, const dma_chunk_t& chunk) {
    if (munmap(va, size != 0 ? size : chunk.size) == 0) {
        return;
    }
    char buffer[1024];
    const char* reason = strerror_r(errno, buffer, sizeof buffer);
    fprintf(stderr, "tarvo: failed to unmap chunk, pa: %llx, va: %p, size: %zu, %s\n",
            static_cast<unsigned long long>(chunk.pa), va, size_t{chunk.size}, reason);
}

/// The chunk that holds the byte at `pa`; null when it is free. The sentinels hold none.
dma_chunk_t* chunk_holding(uint64_t pa) {
    for (dma_chunk_t& chunk : chunks_between_sentinels()) {
        if (chunk.pa <= pa && pa < chunk.pa + chunk.size) {
            return &chunk;
        }
    }
    return nullptr;
}

} // namespace

void* tarvo_map(const char* name, bool writable, size_t offset, size_t size) {
    window part = {offset, size};
    trace_map(name, part, "");
    TARVO_ASSERT(name, "name");
    TARVO_ASSERT(strlen(name), "strlen(name)");
    if (!library_is_ready()) {
        return nullptr;
    }
    lock_guard lock;
    if (!lock.held()) {
        trace_map(name, part, " - lock failed");
        return nullptr;
    }
    dma_chunk_t* chunk = first_named(name, chunks_between_sentinels());
    if (chunk == nullptr) {
        lock.release();
        trace_map(name, part, " - not found");
        return nullptr;
    }
    if (chunk_desc_check(chunk) != 0) {
        lock.release();
        TARVO_ASSERT(false, "0");
    }
    part.complete(*chunk);
    if (!part.fits(*chunk)) {
        // The sentence breaks off, and stays so: the text is part of the interface.
        fprintf(stderr, " offset %zx > chunk->size %zx or offset + size %zx is \n", part.offset,
                size_t{chunk->size}, size_t{part.end()});
        return nullptr;
    }
    return map_window(name, writable, part, *chunk);
}

int tarvo_unmap(const char* name, void* va, size_t size) {
    TARVO_TRACE(trace_progress, "tarvo_unmap", "%s: name %s va %p size %zx", "tarvo_unmap", name,
                va, size);
    TARVO_ASSERT(length_of_argument(name) && va, "strlen(name) && va");
    if (!library_is_ready()) {
        return -1;
    }
    lock_guard lock;
    if (!lock.held()) {
        return -1;
    }
    const dma_chunk_t* found = first_named(name, chunks_between_sentinels());
    if (found == nullptr) {
        lock.release();
    }
    TARVO_ASSERT(found, "found");
    TARVO_ASSERT(size <= found->size, "size <= chunk->size");
    unmap_window(va, size, *found);
    return 0;
}

const char* tarvo_find(uint32_t dma, uint32_t* chunk_dma) {
    if (!library_is_ready()) {
        return nullptr;
    }
    const lock_guard lock;
    if (!lock.held()) {
        return nullptr;
    }
    const dma_chunk_t* chunk = chunk_holding(tarvo_dma_to_pa(dma));
    *chunk_dma = chunk != nullptr ? tarvo_pa_to_dma(chunk->pa) : 0;
    return chunk != nullptr ? chunk->name : nullptr;
}
