#pragma once

#include "shared/process_state.hpp"

inline bool lies_in_region(const dma_chunk_t& chunk) {
    return chunk.pa >= region_start && chunk.pa + chunk.size <= region_start + region_size;
}

/// Reports on standard error that the record does not lie in the region.
[[gnu::cold]] void report_damage(dma_chunk_t* chunk);

/// The guard every chunk record passes before its memory is handed out: 0 when the chunk lies
/// inside this process's region; else -1, after reporting the record. Neither neighbours nor
/// alignment are looked at.
inline int chunk_desc_check(dma_chunk_t* chunk) {
    if (lies_in_region(*chunk)) {
        return 0;
    }
    report_damage(chunk);
    return -1;
}
