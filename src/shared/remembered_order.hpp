#pragma once

#include "shared/layout.hpp"

#include <array>
#include <cstdint>

/// The list order of the chunks as this process last saw it: for each element its successor.
///
/// A walk that reads a link to learn where the next record is waits for memory at every step. With
/// this table it knows beforehand, so that many records are on their way at once, and only compares
/// each link when it arrives (chunk_walk.hpp). Nothing else depends on the table: other processes
/// change the list at will, and a wrong entry costs time, never a wrong step.
class remembered_order {
  public:
    /// Elements that were never looked at are taken to follow each other, as in a list that
    /// was only filled.
    constexpr remembered_order() {
        for (size_t element = 0; element < chunk_capacity; ++element) {
            learn(element, (element + 1) % chunk_capacity);
        }
    }

    size_t after(size_t element) const { return _after[element]; }

    constexpr void learn(size_t element, size_t after) {
        _after[element] = static_cast<uint16_t>(after);
    }

    /// Learns every link at once, in the order of the array: no read waits for another one.
    void learn_all(const chunk_list& list);

  private:
    /// 32 KiB: small enough to stay in the cache nearest to the processor.
    std::array<uint16_t, chunk_capacity> _after{};
    static_assert(chunk_capacity - 1 <= UINT16_MAX);
};

/// The only one. Guarded by the lock, like the list itself, though no other process sees it.
extern remembered_order chunk_order;
