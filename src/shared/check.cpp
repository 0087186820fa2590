#include "shared/check.hpp"

#include "shared/process_state.hpp"
#include "shared/trace.hpp"

#include <cstdio>

namespace {

bool inside_region(const dma_chunk_t& chunk) {
    return chunk.pa >= region_start && chunk.pa + chunk.size <= region_start + region_size;
}

} // namespace

int chunk_desc_check(dma_chunk_t* chunk) {
    if (inside_region(*chunk)) {
        return 0;
    }
    const Zul::String report =
        Zul::format("tarvo: %s() - DMA memory corrupted: chunk (%d), pa (%llx), size (%d)",
                    "chunk_desc_check", dma_chunks->index(chunk),
                    static_cast<unsigned long long>(chunk->pa), static_cast<int>(chunk->size));
    TARVO_TRACE_AT(trace_failure, __LINE__, "chunk_desc_check", report);
    fprintf(stderr, "%s", report.text().c_str());
    fputc('\n', stderr);
    return -1;
}
