#include "shared/wanted_name.hpp"

dma_chunk_t* first_named(const char* name, chunk_walk chunks) {
    const wanted_name wanted(name);
    for (dma_chunk_t& chunk : chunks) {
        if (wanted.is_name_of(chunk)) {
            return &chunk;
        }
    }
    return nullptr;
}
