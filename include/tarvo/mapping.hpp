/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo.h"
#include "tarvo/allocation.hpp"
#include "tarvo/chunk.hpp"
#include "tarvo/listing.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/mman.h>
#include <type_traits>
#include <utility>

/// @file
/// Chunks in this process.

namespace tarvo {

/// A chunk, or a window of it, in this process for as long as the object lives. Move-only.
///
/// It belongs to this process alone and outlives the chunk: when somebody frees that, the mapping
/// goes on showing the memory, which may by then be another chunk's. It ends by munmap(), not by
/// tarvo_unmap(), which does the same but first looks for the chunk and ends the process when it is
/// gone. So letting a mapping go takes no lock, is allowed at any time and never fails.
template <typename Byte>
class basic_mapping {
  public:
    /// A mapping of nothing.
    basic_mapping() noexcept = default;
    basic_mapping(basic_mapping&& other) noexcept
        : _span(std::exchange(other._span, {})), _dma(other._dma) {}
    basic_mapping& operator=(basic_mapping&& other) noexcept {
        basic_mapping taken(std::move(other));
        std::swap(_span, taken._span);
        std::swap(_dma, taken._dma);
        return *this;
    }
    basic_mapping(const basic_mapping&) = delete;
    basic_mapping& operator=(const basic_mapping&) = delete;
    ~basic_mapping() {
        if (!_span.empty()) {
            // Unmapping takes a pointer to non-const whatever the memory's protection.
            ::munmap(const_cast<std::byte*>(_span.data()), _span.size());
        }
    }

    /// Its bytes; none after it was moved from.
    std::span<Byte> span() const noexcept { return _span; }
    size_t size() const noexcept { return _span.size(); }
    /// Where devices see its first byte.
    dma_address dma() const noexcept { return _dma; }

    /// The T at `offset`, which both sides of a shared chunk lay out alike: of fixed-width fields,
    /// without pointers. The memory is taken as it is; a new chunk's is zero.
    ///
    /// @return its address in this process; bad_window when it is not aligned or not within.
    template <typename T>
    result<std::conditional_t<std::is_const_v<Byte>, const T, T>*>
    object(bytes offset = {}) const noexcept {
        static_assert(std::is_standard_layout_v<T> && std::is_trivially_destructible_v<T>);
        using object_type = std::conditional_t<std::is_const_v<Byte>, const T, T>;
        const uint64_t start = offset.count();
        if (start > _span.size() || _span.size() - start < sizeof(T) ||
            reinterpret_cast<uintptr_t>(_span.data() + start) % alignof(T) != 0) {
            return error(error_code::bad_window,
                         "an object of %zu bytes at %llu, in a mapping of %zu; its address is a "
                         "multiple of %zu and it ends in the mapping",
                         sizeof(T), static_cast<unsigned long long>(start), _span.size(),
                         alignof(T));
        }
        return reinterpret_cast<object_type*>(_span.data() + start);
    }

  private:
    template <typename B>
    friend result<basic_mapping<B>> map_window(const chunk&, bytes, bytes) noexcept;

    basic_mapping(Byte* memory, bytes size, dma_address dma) noexcept
        : _span(memory, static_cast<size_t>(size.count())), _dma(dma) {}

    std::span<Byte> _span;
    dma_address _dma;
};

using mapping = basic_mapping<std::byte>;
using read_only_mapping = basic_mapping<const std::byte>;

namespace detail {

/// A window that lies in the chunk and starts on a page.
inline result<void> check_window(const chunk& known, bytes offset, bytes size) noexcept {
    if (offset >= known.size() || size > known.size() - offset) {
        return error(error_code::bad_window,
                     "%llu bytes from %llu on are not in '%s', which has %llu",
                     static_cast<unsigned long long>(size.count()),
                     static_cast<unsigned long long>(offset.count()), known.c_name(),
                     static_cast<unsigned long long>(known.size().count()));
    }
    if (offset.count() % page_size().count() != 0) {
        return error(error_code::bad_window, "offset %llu in '%s' is not a multiple of %llu",
                     static_cast<unsigned long long>(offset.count()), known.c_name(),
                     static_cast<unsigned long long>(page_size().count()));
    }
    return {};
}

} // namespace detail

/// What map() and map_read_only() have in common.
template <typename Byte>
result<basic_mapping<Byte>> map_window(const chunk& known, bytes offset, bytes size) noexcept {
    if (const result<void> sound = detail::check_window(known, offset, size); !sound) {
        return sound.error();
    }
    const result<listing> now = listing::open();
    if (!now) {
        return now.error();
    }
    if (const result<void> same = detail::check_unchanged(*now, known); !same) {
        return same.error();
    }
    // The lock is held since the look at the chunk: this is that very chunk.
    const bytes window = size != bytes() ? size : known.size() - offset;
    void* memory =
        tarvo_map(known.c_name(), !std::is_const_v<Byte>, static_cast<size_t>(offset.count()),
                  static_cast<size_t>(window.count()));
    if (memory == nullptr) {
        return error(error_code::refused,
                     "the system refuses to map %llu bytes of '%s'; ZUL_TRACE=tarvo=5 in the "
                     "environment shows why",
                     static_cast<unsigned long long>(window.count()), known.c_name());
    }
    return basic_mapping<Byte>(static_cast<Byte*>(memory), window, known.dma() + offset);
}

/// Maps a chunk, or a window of it, readable and writable, if its name still means this chunk. So
/// the mapping is always of the memory that its DMA address names.
///
/// @param known   from allocate(), find_chunk() or a listing.
/// @param offset  first byte of the window; a multiple of the page size.
/// @param size    of the window; none: to the chunk's end.
/// @return the mapping; bad_window, not_found, changed, refused, damaged, not_started, not_locked,
///         listing_open.
///
/// Takes the lock.
inline result<mapping> map(const chunk& known, bytes offset = {}, bytes size = {}) noexcept {
    return map_window<std::byte>(known, offset, size);
}

/// The same for reading only; a write through it, cast away the const, faults.
inline result<read_only_mapping> map_read_only(const chunk& known, bytes offset = {},
                                               bytes size = {}) noexcept {
    return map_window<const std::byte>(known, offset, size);
}

} // namespace tarvo
