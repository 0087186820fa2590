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
        iterator(dma_chunk_t* first, dma_chunk_t* stop) : _stop(stop) { go_to(first); }

        dma_chunk_t& operator*() const { return *_chunk; }

        iterator& operator++() {
            go_to(dma_chunks->next(_chunk));
            return *this;
        }

        bool at_end() const { return _chunk == _stop; }
        bool operator!=(end_of_walk /*unused*/) const { return !at_end(); }
        dma_chunk_t* stopped_before() const { return _chunk; }

      private:
        void go_to(dma_chunk_t* chunk) {
            if (chunk == nullptr) {
                _stop = nullptr;
            }
            _chunk = chunk;
            if (!at_end()) {
                chunk_list::check_visited(++_visited);
            }
        }

        dma_chunk_t* _stop = nullptr;
        dma_chunk_t* _chunk = nullptr;
        int _visited = 0;
    };

    chunk_walk(dma_chunk_t* first, dma_chunk_t* stop) : _first(first), _stop(stop) {}

    iterator begin() const { return {_first, _stop}; }
    static end_of_walk end() { return {}; }

  private:
    dma_chunk_t* _first;
    dma_chunk_t* _stop;
};

inline chunk_walk chunks_between_sentinels() {
    return {dma_chunks->next(dma_chunk_head), dma_chunk_tail};
}

inline chunk_walk chunks_after_head() {
    return {dma_chunks->next(dma_chunk_head), nullptr};
}
