#pragma once

#include "shared/process_state.hpp"
#include "shared/remembered_order.hpp"

#include <algorithm>
#include <cstddef>

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

        [[gnu::always_inline]] iterator(dma_chunk_t* first, dma_chunk_t* stop)
            : _list(dma_chunks), _stop(stop) {
            go_to(first);
            start_fetching(chunk_capacity);
        }

        dma_chunk_t& operator*() const { return *_chunk; }

        /// The quick step, which is nearly always taken, needs registers only. The slow one is
        /// given a copy: an object whose address is known elsewhere is kept in memory.
        [[gnu::always_inline]] iterator& operator++() {
            const size_t guess = opaque(chunk_order.after(_element));
            --_quick_steps;
            if (_quick_steps != 0 && _list->leads_to(*_chunk, _element, guess)) [[likely]] {
                _chunk = &_list->_arr[guess];
                _element = guess;
                fetch(1);
            } else {
                iterator copy = *this;
                copy.take_slow_step();
                *this = copy;
            }
            return *this;
        }

        bool at_end() const { return _chunk == _stop; }
        bool operator!=(end_of_walk /*unused*/) const { return !at_end(); }

        /// At the end: the chunk before which the walk was to stop; null where the list ended
        /// first.
        dma_chunk_t* stopped_before() const { return _chunk; }

      private:
        /// So many records are under way at once: more than the processor can wait for.
        static constexpr size_t full_lead = 24;
        /// At first fewer: short lists are not made to wait for what they do not have.
        static constexpr size_t first_lead = full_lead / 2;

        /// The same number, but the compiler does not know: it could otherwise go on with the link
        /// that was compared and found equal, and wait for it after all.
        static size_t opaque(size_t element) {
            asm("" : "+r"(element));
            return element;
        }

        /// A step by the link itself: where the guess was wrong, where the list ends or is damaged,
        /// and where the quick steps are used up.
        [[gnu::cold]] void take_slow_step();

        [[gnu::always_inline]] void go_to(dma_chunk_t* chunk) {
            if (chunk == nullptr) {
                _stop = nullptr;
            }
            _chunk = chunk;
            if (!at_end()) {
                _element = static_cast<size_t>(_list->index(chunk));
            }
        }

        /// Begins to fetch from here on. Then come quick steps, of all those that may still come.
        [[gnu::always_inline]] void start_fetching(size_t steps) {
            _fetched = _element;
            fetch(first_lead);
            plan(std::min(first_lead, steps), steps);
        }

        [[gnu::always_inline]] void plan(size_t quick, size_t steps) {
            _quick_steps = quick;
            _later_steps = steps - quick;
        }

        [[gnu::always_inline]] void fetch(size_t count) {
            for (size_t i = 0; i < count; ++i) {
                _fetched = chunk_order.after(_fetched);
                __builtin_prefetch(&_list->_arr[_fetched]);
            }
        }

        /// In this order compilers keep the first three in registers of their own.
        chunk_list* _list = nullptr;
        dma_chunk_t* _chunk = nullptr;
        dma_chunk_t* _stop = nullptr;
        size_t _element = 0;     ///< number of _chunk
        size_t _fetched = 0;     ///< the last one that was fetched
        size_t _quick_steps = 0; ///< before one is taken slowly, that one included
        size_t _later_steps = 0; ///< after these, up to one more than a list can have
        int _wrong_guesses = 0;
    };

    /// From `first` on; `stop` is not visited, nor what follows it. Null is the end of the list.
    chunk_walk(dma_chunk_t* first, dma_chunk_t* stop) : _first(first), _stop(stop) {}

    [[gnu::always_inline]] iterator begin() const { return {_first, _stop}; }
    static end_of_walk end() { return {}; }

  private:
    dma_chunk_t* _first;
    dma_chunk_t* _stop;
};

/// The allocated chunks: everything between the two sentinels.
inline chunk_walk chunks_between_sentinels() {
    return {dma_chunks->next(dma_chunk_head), dma_chunk_tail};
}

/// Everything after __HEAD, __TAIL included.
inline chunk_walk chunks_after_head() {
    return {dma_chunks->next(dma_chunk_head), nullptr};
}
