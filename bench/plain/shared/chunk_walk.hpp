#pragma once

#include "shared/process_state.hpp"

/// The walk as anybody would write it, in place of the library's own: each link is read to learn
/// where the next record is. Everything else in this build of the library is the same.
class chunk_walk {
  public:
    struct end_of_walk {};

    class iterator {
      public:
        iterator() = default;
        iterator(dma_chunk_t* chunk, dma_chunk_t* stop) : _stop(stop) { go_to(chunk); }

        dma_chunk_t& operator*() const { return *_chunk; }

        iterator& operator++() {
            go_to(dma_chunks->next(_chunk));
            return *this;
        }

        bool at_end() const { return _chunk == nullptr; }
        bool operator!=(end_of_walk /*unused*/) const { return !at_end(); }

      private:
        void go_to(dma_chunk_t* chunk) { _chunk = chunk != _stop ? chunk : nullptr; }

        dma_chunk_t* _stop = nullptr;
        dma_chunk_t* _chunk = nullptr;
    };

    explicit chunk_walk(dma_chunk_t* stop) : _stop(stop) {}

    iterator begin() const { return {dma_chunks->next(dma_chunk_head), _stop}; }
    static end_of_walk end() { return {}; }

  private:
    dma_chunk_t* _stop;
};

inline chunk_walk chunks_between_sentinels() {
    return chunk_walk(dma_chunk_tail);
}

inline chunk_walk chunks_behind_head() {
    return chunk_walk(nullptr);
}

dma_chunk_t* first_named(const char* name, chunk_walk chunks);
