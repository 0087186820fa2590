#pragma once

#include "assertion.hpp"

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

/// The source name and the lines in this class's assertion messages never change.
#define LIST_ASSERT(condition, text, line)                                                         \
    TARVO_ASSERT_AT(condition, text, "./ArrayBackedList.hpp", line, __PRETTY_FUNCTION__)

/// A doubly linked list of at most MAX elements that lives wholly inside its own bytes. Links are
/// element indices, never pointers, so the same bytes are a valid list in every process that maps
/// them, at whatever address. Nothing is allocated and no constructor runs: one process calls
/// init() on zeroed storage, all others use what they find.
///
/// T begins with `next`, `prev` (int32_t) and `allocated` (one byte); the rest is payload. Index
/// -1 is "none". An element is either on the list (`allocated` set) or on the free chain, which is
/// linked through `next` alone. The list is circular, but next() stops at the tail.
///
/// A breach of these rules ends the process. Whoever shares the bytes holds a lock for every call.
///
/// A process can die between any two stores, and others then go on with what it has left. So stores
/// have an order: an element is whole before anything leads to it, its `prev` is right before a
/// `next` leads to it and until none does any more, and a walk never gets past the tail. What is
/// left is at worst an element that is lost, but for two moments, which tarvo(7) names.
template <typename T, int MAX>
struct ArrayBackedList {
    T _arr[MAX];
    int32_t _head;
    int32_t _tail;
    int32_t _free;

    static constexpr int32_t none = -1;
    static_assert(std::is_trivially_copyable_v<T>, "an element is nothing but its bytes");

    /// Empties the list: every element that is not `allocated` joins the free chain, lowest first.
    void init() {
        _head = none;
        _tail = none;
        _free = none;
        int32_t* link = &_free;
        for (int idx = 0; idx < MAX; ++idx) {
            if (!_arr[idx].allocated) {
                *link = idx;
                link = &_arr[idx].next;
            }
        }
        _arr[MAX - 1].next = none;
    }

    /// The element at `idx`; null for -1.
    T* arr_elem(int idx) {
        if (idx == none) {
            return nullptr;
        }
        LIST_ASSERT(idx >= 0 && idx < MAX, "idx >= 0 && idx < MAX", 159);
        return &_arr[idx];
    }

    /// The index of the element that holds the byte `e` points at, which must lie in this list.
    /// Addresses are subtracted, not pointers: those of other objects have no difference that a
    /// compiler need respect. In 64 bits without sign, so that a pointer below the list comes out
    /// far above it, and compared before it is narrowed: no stray pointer is folded into the valid
    /// range.
    int index(T* e) {
        const uint64_t idx = (address(e) - address(_arr)) / sizeof(T);
        LIST_ASSERT(idx < MAX, "idx >= 0 && idx < MAX", 154);
        return static_cast<int>(idx);
    }

    /// The element at `idx` where there must be one: -1 is out of range, too.
    T* at(int idx) {
        LIST_ASSERT(idx != none, "idx >= 0 && idx < MAX", 159);
        return arr_elem(idx);
    }

    /// The element that `e` links to, without asking whether `e` is the tail.
    T* get_next(T* e) { return arr_elem(e->next); }

    void set_next(T* a, T* b) { a->next = index(b); }

    void set_prev(T* a, T* b) { a->prev = index(b); }

    /// The element that follows `cur`; null when `cur` is the tail.
    T* next(T* cur) {
        LIST_ASSERT(cur->allocated, "cur->allocated", 32);
        return is_tail(cur) ? nullptr : get_next(cur);
    }

    /// Whether next() of `cur`, the element at `idx`, is the one at `guess`. For walks that have a
    /// guess and no time: it checks nothing, and where it says no, next() has to be asked.
    bool leads_to(const T& cur, size_t idx, size_t guess) const {
        if (cur.next != static_cast<int32_t>(guess) || !cur.allocated ||
            static_cast<int32_t>(idx) == _tail) [[unlikely]] {
            return false;
        }
        return true;
    }

    /// What every walk asserts of the elements that it has met. Links that lead in a circle would
    /// otherwise keep it for ever, and the lock with it.
    static void check_visited(int visited) { LIST_ASSERT(visited <= MAX, "visited <= MAX", 166); }

    /// Links `new_elem` directly after `cur`. The head never changes.
    void insert_after(T* cur, T* new_elem) {
        LIST_ASSERT(cur->allocated && new_elem->allocated, "cur->allocated && new_elem->allocated",
                    49);
        T* following = get_next(cur);
        set_next(new_elem, following);
        set_prev(new_elem, cur);
        before_what_follows();
        set_next(cur, new_elem);
        before_what_follows();
        set_prev(following, new_elem);
        if (is_tail(cur)) {
            before_what_follows();
            _tail = index(new_elem);
        }
    }

    /// Links `e` at the end.
    void append(T* e) {
        const int idx = index(e);
        const bool is_first = _head == none && _tail == none;
        LIST_ASSERT(is_first || (_head != none && _tail != none), "_head != -1 && _tail != -1", 88);
        T* last = is_first ? e : at(_tail);
        T* first = is_first ? e : at(_head);
        set_prev(e, last);
        set_next(e, first);
        before_what_follows();
        set_prev(first, e);
        before_what_follows();
        set_next(last, e);
        before_what_follows();
        set_ends(is_first ? idx : _head, idx);
    }

    /// Unlinks `cur`, which keeps its links and its flag until it is freed.
    void remove(T* cur) {
        LIST_ASSERT(cur->allocated, "cur->allocated", 100);
        if (is_head(cur)) {
            remove_from_front(cur);
        } else if (is_tail(cur)) {
            _tail = cur->prev;
        }
        before_what_follows();
        T* before = at(cur->prev);
        T* after = at(cur->next);
        set_prev(after, before);
        before_what_follows();
        set_next(before, after);
    }

    /// Takes the first element off the free chain and marks it; the caller links it. The caller
    /// has looked at `_free` first: on an exhausted chain the access itself faults, which callers
    /// that deliberately do not look rely on.
    T* alloc() {
        T* chunk = arr_elem(_free);
        LIST_ASSERT(!chunk->allocated, "!chunk->allocated", 126);
        _free = chunk->next;
        before_what_follows();
        chunk->allocated = 1;
        return chunk;
    }

    /// Zeroes `cur` whole and puts it at the front of the free chain.
    void free(T* cur) {
        LIST_ASSERT(cur->allocated, "cur->allocated", 141);
        std::memset(static_cast<void*>(cur), 0, sizeof(T));
        cur->next = _free;
        before_what_follows();
        _free = index(cur);
    }

    /// Unlinks `cur` and frees it.
    void erase(T* cur) {
        remove(cur);
        before_what_follows();
        free(cur);
    }

    /// The usual walk, from the head along next(), as a range-for. The element in hand must still
    /// be on the list when the walk moves on.
    class iterator {
      public:
        /// Stands at the end.
        iterator() = default;
        iterator(ArrayBackedList* list, T* cur) : _list(list), _cur(cur) {}
        T& operator*() const { return *_cur; }
        iterator& operator++() {
            _cur = _list->next(_cur);
            if (_cur != nullptr) {
                check_visited(++_visited);
            }
            return *this;
        }
        bool at_end() const { return _cur == nullptr; }
        bool operator!=(const iterator& other) const { return _cur != other._cur; }

      private:
        ArrayBackedList* _list = nullptr;
        T* _cur = nullptr;
        int _visited = 1;
    };

    iterator begin() { return iterator(this, arr_elem(_head)); }
    iterator end() { return {}; }

  private:
    /// Holds the compiler to the order of stores. The processor needs no telling: whatever a
    /// process had stored when it died is there for the others.
    static void before_what_follows() { std::atomic_signal_fence(std::memory_order_seq_cst); }

    /// Stores both ends at once, where the machine can: a list with only one of them is a breach.
    void set_ends(int32_t head, int32_t tail) {
        using both [[gnu::aligned(alignof(int32_t)), gnu::may_alias]] = uint64_t;
        char* ends = reinterpret_cast<char*>(this) + offsetof(ArrayBackedList, _head);
        *reinterpret_cast<volatile both*>(ends) = std::bit_cast<uint64_t>(std::array{head, tail});
    }

    static uint64_t address(const T* e) { return reinterpret_cast<uintptr_t>(e); }

    bool is_head(T* cur) { return cur == arr_elem(_head); }
    bool is_tail(T* cur) { return cur == arr_elem(_tail); }

    void remove_from_front(T* cur) {
        if (is_tail(cur)) {
            set_ends(none, none);
        } else {
            _head = cur->next;
        }
    }
};

#undef LIST_ASSERT
