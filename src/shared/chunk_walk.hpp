#pragma once

#include "shared/process_state.hpp"

#include <cstring>

/// Chunks in list order, which is ascending physical address, as a range-for. Every search and
/// every visit of the chunks is one of these; only a listing, which goes on between calls, keeps its
/// own place. The lock is held throughout.
class chunk_walk {
  public:
    class iterator {
      public:
        iterator(dma_chunk_t* chunk, dma_chunk_t* stop) : _stop(stop), _chunk(until_stop(chunk)) {}
        dma_chunk_t& operator*() const { return *_chunk; }
        iterator& operator++() {
            _chunk = until_stop(dma_chunks->next(_chunk));
            return *this;
        }
        bool operator!=(const iterator& other) const { return _chunk != other._chunk; }

      private:
        dma_chunk_t* until_stop(dma_chunk_t* chunk) const {
            return chunk == _stop ? nullptr : chunk;
        }

        dma_chunk_t* _stop;
        dma_chunk_t* _chunk;
    };

    /// `stop` is not visited, nor what follows it; null walks to the end of the list.
    explicit chunk_walk(dma_chunk_t* stop) : _stop(stop) {}

    iterator begin() const { return {dma_chunks->next(dma_chunk_head), _stop}; }
    iterator end() const { return {nullptr, _stop}; }

  private:
    dma_chunk_t* _stop;
};

/// The allocated chunks: everything between the two sentinels.
inline chunk_walk chunks_between_sentinels() {
    return chunk_walk(dma_chunk_tail);
}

/// Everything behind __HEAD, __TAIL included.
inline chunk_walk chunks_behind_head() {
    return chunk_walk(nullptr);
}

/// The first chunk of `chunks` that is called `name`; null when there is none. Where several
/// chunks share a name this is the lowest one.
inline dma_chunk_t* first_named(const char* name, chunk_walk chunks) {
    for (dma_chunk_t& chunk : chunks) {
        if (strcmp(chunk.name, name) == 0) {
            return &chunk;
        }
    }
    return nullptr;
}
