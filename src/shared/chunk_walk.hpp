#pragma once

#include "shared/process_state.hpp"
#include "shared/remembered_order.hpp"

/// Chunks in list order, which is ascending physical address, as a range-for. Every search and
/// every visit of the chunks is one of these. The lock is held throughout.
///
/// The list itself says what comes next: each step is the container's next(), with its checks. Only
/// the address of the record is taken from the remembered order when the two agree, so that the
/// processor can go ahead without waiting for the link.
class chunk_walk {
  public:
    struct end_of_walk {};

    class iterator {
      public:
        /// Stands at the end.
        iterator() = default;

        iterator(dma_chunk_t* chunk, dma_chunk_t* stop) : _stop(stop) { jump_to(chunk); }

        dma_chunk_t& operator*() const { return *_chunk; }

        iterator& operator++() {
            const int guess = chunk_order.behind(_element);
            if (dma_chunks->leads_to(_element, incognito(guess))) [[likely]] {
                _chunk = &dma_chunks->_arr[guess];
                _element = guess;
                fetch_ahead();
            } else {
                follow_link();
            }
            return *this;
        }

        bool at_end() const { return _chunk == _stop; }
        bool operator!=(end_of_walk /*unused*/) const { return !at_end(); }

      private:
        /// So many records are under way at once: more than the processor can wait for.
        static constexpr int max_lead = 24;

        /// The same number, but the compiler does not know: it could otherwise go on with the link that
        /// was compared and found equal, and wait for it after all.
        static int incognito(int element) {
            asm("" : "+r"(element));
            return element;
        }

        void follow_link() {
            dma_chunk_t* following = dma_chunks->next(_chunk);
            if (following != nullptr) {
                chunk_order.learn(_element, dma_chunks->index(following));
            }
            jump_to(following);
        }

        void jump_to(dma_chunk_t* chunk) {
            if (chunk == nullptr || chunk == _stop) {
                _chunk = _stop;
                return;
            }
            _chunk = chunk;
            _element = dma_chunks->index(chunk);
            _fetched = _element;
            _lead = 0;
        }

        /// Two records at a step until the lead is reached: short lists are not made to wait for
        /// what they do not have.
        void fetch_ahead() {
            fetch_one();
            if (_lead < max_lead) {
                ++_lead;
                fetch_one();
            }
        }

        void fetch_one() {
            _fetched = chunk_order.behind(_fetched);
            __builtin_prefetch(&dma_chunks->_arr[_fetched]);
        }

        dma_chunk_t* _stop = nullptr;
        dma_chunk_t* _chunk = nullptr;
        int _element = 0; ///< number of _chunk
        int _fetched = 0; ///< the last one that was fetched
        int _lead = 0;    ///< how far that one is ahead
    };

    /// `stop` is not visited, nor what follows it; null walks to the end of the list.
    explicit chunk_walk(dma_chunk_t* stop) : _stop(stop) {}

    iterator begin() const { return {dma_chunks->next(dma_chunk_head), _stop}; }
    static end_of_walk end() { return {}; }

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
dma_chunk_t* first_named(const char* name, chunk_walk chunks);
