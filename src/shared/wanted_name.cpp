#include "shared/wanted_name.hpp"

dma_chunk_t* first_named(const char* name, chunk_walk chunks) {
    const wanted_name wanted(name);
    for (dma_chunk_t& chunk : chunks) {
        if (wanted.matches(chunk)) {
            return &chunk;
        }
    }
    return nullptr;
}
