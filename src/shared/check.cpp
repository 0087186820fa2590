#include "shared/check.hpp"

#include "shared/process_state.hpp"
#include "shared/trace.hpp"

#include <cstdio>

void report_damage(dma_chunk_t* chunk) {
    static constexpr char format[] =
        "tarvo: %s() - DMA memory corrupted: chunk (%d), pa (%llx), size (%d)";
    constexpr const char* function = "chunk_desc_check";
    const int index = dma_chunks->index(chunk);
    const unsigned long long pa = chunk->pa;
    const int size = static_cast<int>(chunk->size);
    TARVO_TRACE(trace_failure, function, format, function, index, pa, size);
    fprintf(stderr, format, function, index, pa, size);
    fputc('\n', stderr);
}
