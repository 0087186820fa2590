#pragma once

#include "shared/process_state.hpp"

/// The guard every chunk record passes before its memory is handed out: 0 when the chunk lies
/// inside this process's region; else -1, after reporting the record on standard error. Neither
/// neighbours nor alignment are looked at.
int chunk_desc_check(dma_chunk_t* chunk);

inline bool lies_in_region(const dma_chunk_t& chunk) {
    return chunk.pa >= region_start && chunk.pa + chunk.size <= region_start + region_size;
}

/// Whether the record passes the guard. Nearly all do, so the question is asked in place.
inline bool is_sound(dma_chunk_t* chunk) {
    return lies_in_region(*chunk) || chunk_desc_check(chunk) == 0;
}
