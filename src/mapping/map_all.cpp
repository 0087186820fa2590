#include "assertion.hpp"
#include "shared/init.hpp"
#include "shared/process_state.hpp"
#include "shared/trace.hpp"
#include "tarvo.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>

// The whole region in the calling process, mapped once and counted. No lock: nothing shared is
// read.

namespace {

/// Null when the region is not mapped. A character pointer: the trace shows what it points at.
char* tarvo_mapall_va = nullptr;

/// Calls of tarvo_map_all not yet balanced. A mapping that failed is counted, too, and so
/// never tried again in this process.
int tarvo_mapall_refcount = 0;

/// The record carries the line of whoever calls this.
void trace_state(const char* function, int line = __builtin_LINE()) {
    TARVO_TRACE_AT(trace_progress, line, function,
                   function << " va " << tarvo_mapall_va << " refcount " << tarvo_mapall_refcount);
}

/// Null after a failure.
char* map_region() {
    void* va = mmap64(nullptr, region_size, PROT_READ | PROT_WRITE, MAP_SHARED, mem_fd,
                      static_cast<off64_t>(region_start));
    if (va == MAP_FAILED) {
        fprintf(stderr, "tarvo: failed to mmap size %zu\n", size_t{region_size});
        return nullptr;
    }
    return static_cast<char*>(va);
}

void unmap_region() {
    TARVO_TRACE_AT(trace_progress, __LINE__, "tarvo_unmap_all",
                   "tarvo_unmap_all"
                       << " freeing mapall_va");
    if (munmap(tarvo_mapall_va, region_size) == 0) {
        return;
    }
    char buffer[1024];
    const char* reason = strerror_r(errno, buffer, sizeof buffer);
    fprintf(stderr, "tarvo: failed to unmap chunk, va: %p, size: %zu, error: %s\n",
            static_cast<void*>(tarvo_mapall_va), size_t{region_size}, reason);
}

} // namespace

void* tarvo_map_all() {
    if (!library_is_ready()) {
        return nullptr;
    }
    TARVO_TRACE_AT(trace_progress, __LINE__, "tarvo_map_all", "tarvo_map_all");
    if (tarvo_mapall_va != nullptr) {
        TARVO_ASSERT(tarvo_mapall_refcount, "tarvo_mapall_refcount");
    } else {
        TARVO_ASSERT(tarvo_mapall_refcount == 0, "tarvo_mapall_refcount == 0");
        tarvo_mapall_va = map_region();
        trace_state("tarvo_map_all");
    }
    ++tarvo_mapall_refcount;
    return tarvo_mapall_va;
}

void tarvo_unmap_all() {
    trace_state("tarvo_unmap_all");
    TARVO_ASSERT(tarvo_mapall_va, "tarvo_mapall_va");
    TARVO_ASSERT(tarvo_mapall_refcount, "tarvo_mapall_refcount");
    if (tarvo_mapall_refcount <= 1) {
        unmap_region();
        tarvo_mapall_va = nullptr;
    }
    --tarvo_mapall_refcount;
}
