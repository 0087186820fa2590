/* SPDX-License-Identifier: MIT */
#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <unistd.h>

/// @file
/// Sizes and the two kinds of address, as types that do not mix.

namespace tarvo {

/// A size or an offset. Sums and differences wrap as unsigned numbers do.
class bytes {
  public:
    constexpr bytes() noexcept = default;
    explicit constexpr bytes(uint64_t count) noexcept : _count(count) {}

    constexpr uint64_t count() const noexcept { return _count; }

    friend constexpr bool operator==(const bytes&, const bytes&) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(bytes a, bytes b) noexcept {
        return a._count <=> b._count;
    }
    friend constexpr bytes operator+(bytes a, bytes b) noexcept {
        return bytes(a._count + b._count);
    }
    friend constexpr bytes operator-(bytes a, bytes b) noexcept {
        return bytes(a._count - b._count);
    }
    friend constexpr bytes operator*(bytes a, uint64_t times) noexcept {
        return bytes(a._count * times);
    }

  private:
    uint64_t _count = 0;
};

/// A number of one address space. Another `Space` is another type: neither converts to the other,
/// nor to a number, nor to a pointer. Adding a size wraps as unsigned numbers do.
template <typename Space, typename Number>
class address {
  public:
    constexpr address() noexcept = default;
    explicit constexpr address(Number value) noexcept : _value(value) {}

    constexpr Number value() const noexcept { return _value; }

    friend constexpr bool operator==(const address&, const address&) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(address a, address b) noexcept {
        return a._value <=> b._value;
    }
    friend constexpr address operator+(address base, bytes offset) noexcept {
        return address(static_cast<Number>(base._value + offset.count()));
    }
    /// From `b` up to `a`.
    friend constexpr bytes operator-(address a, address b) noexcept {
        return bytes(static_cast<Number>(a._value - b._value));
    }

  private:
    Number _value = 0;
};

struct dma_space;
struct physical_space;

/// Where a device sees memory. Given to devices; 0 is no chunk's.
using dma_address = address<dma_space, uint32_t>;

/// Where memory lies for the processor. Not a pointer: map the chunk.
using physical_address = address<physical_space, uint64_t>;

namespace detail {

/// Not defined, and not constexpr: a literal that comes here does not compile.
void size_literal_is_too_large();

consteval bytes scaled(unsigned long long count, unsigned shift) noexcept {
    if (count > (std::numeric_limits<uint64_t>::max() >> shift)) {
        size_literal_is_too_large();
    }
    return bytes(uint64_t{count} << shift);
}

} // namespace detail

/// Sizes as they are said: `using namespace tarvo::literals;`, then 64_KiB.
inline namespace literals {

consteval bytes operator""_B(unsigned long long count) noexcept {
    return detail::scaled(count, 0);
}

consteval bytes operator""_KiB(unsigned long long count) noexcept {
    return detail::scaled(count, 10);
}

consteval bytes operator""_MiB(unsigned long long count) noexcept {
    return detail::scaled(count, 20);
}

consteval bytes operator""_GiB(unsigned long long count) noexcept {
    return detail::scaled(count, 30);
}

} // namespace literals

/// The size of a page of this machine.
inline bytes page_size() noexcept {
    return bytes(static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)));
}

/// `size` rounded up to whole pages, as chunks are. Wraps for the last page of 64 bits.
inline bytes rounded_to_pages(bytes size) noexcept {
    const uint64_t page = page_size().count();
    return bytes((size.count() + page - 1) / page * page);
}

} // namespace tarvo
