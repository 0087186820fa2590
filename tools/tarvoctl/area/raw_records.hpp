#pragma once

#include "shared/dma_window.hpp"
#include "shared/layout.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>

// Records read as what they may be: any bytes. The container's own operations are not used, because
// they end the process at the first breach.

namespace tarvoctl {

enum class area_list {
    area,    ///< the area as a whole, outside its lists
    chunks,  ///< `element` is a chunk's number
    refs,    ///< the devices of chunk `element`; `ref` is a reference's number
    devices, ///< `element` is a device's number
};

/// Where something is. -1: not one element, but the list as a whole.
struct place {
    area_list list = area_list::area;
    int element = -1;
    int ref = -1;

    bool operator==(const place&) const = default;
};

/// One list's ends and links, whatever its elements are. Every element of every list begins with
/// the same three fields.
struct list_links {
    place list;
    size_t offset = 0; ///< of element 0 in the area file
    const uint8_t* elements = nullptr;
    size_t element_bytes = 0;
    int capacity = 0;
    int32_t head = -1;
    int32_t tail = -1;
    int32_t free = -1;

    static constexpr size_t next_offset = 0;
    static constexpr size_t prev_offset = 4;
    static constexpr size_t flag_offset = 8;
    /// Of the ends, which follow the elements.
    static constexpr size_t head_offset = 0;
    static constexpr size_t tail_offset = 4;
    static constexpr size_t free_offset = 8;
    static constexpr size_t ends_bytes = 12;

    bool has(int32_t element) const { return element >= 0 && element < capacity; }
    std::span<const uint8_t> bytes(int element) const {
        return {elements + static_cast<size_t>(element) * element_bytes, element_bytes};
    }
    /// Everything but `next`, which is all that a free element holds.
    std::span<const uint8_t> bytes_after_next(int element) const {
        return bytes(element).subspan(prev_offset);
    }
    int32_t next(int element) const { return link(element, next_offset); }
    int32_t prev(int element) const { return link(element, prev_offset); }
    uint8_t flag(int element) const { return bytes(element)[flag_offset]; }

    size_t offset_of(int element) const {
        return offset + static_cast<size_t>(element) * element_bytes;
    }
    size_t ends_offset() const { return offset_of(capacity); }

    place at(int element) const {
        return list.list == area_list::refs ? place{list.list, list.element, element}
                                            : place{list.list, element, -1};
    }

  private:
    int32_t link(int element, size_t field) const {
        int32_t value = 0;
        std::memcpy(&value, bytes(element).data() + field, sizeof value);
        return value;
    }
};

template <typename T, int MAX>
list_links links_of(const ArrayBackedList<T, MAX>& list, place name, size_t offset) {
    static_assert(offsetof(T, next) == list_links::next_offset);
    static_assert(offsetof(T, prev) == list_links::prev_offset);
    static_assert(offsetof(T, allocated) == list_links::flag_offset);
    using list_type = ArrayBackedList<T, MAX>;
    static_assert(offsetof(list_type, _head) == MAX * sizeof(T) + list_links::head_offset);
    static_assert(offsetof(list_type, _tail) == MAX * sizeof(T) + list_links::tail_offset);
    static_assert(offsetof(list_type, _free) == MAX * sizeof(T) + list_links::free_offset);
    static_assert(sizeof(list_type) == MAX * sizeof(T) + list_links::ends_bytes);
    return {name,       offset,    reinterpret_cast<const uint8_t*>(&list),
            sizeof(T),  MAX,       list._head,
            list._tail, list._free};
}

inline list_links chunk_links(const shared_area_t& area) {
    return links_of(area.chunks, {area_list::chunks}, offsetof(shared_area_t, chunks));
}

inline list_links device_links(const shared_area_t& area) {
    return links_of(area.devices, {area_list::devices}, offsetof(shared_area_t, devices));
}

inline list_links ref_links(const shared_area_t& area, int chunk) {
    const size_t offset = offsetof(shared_area_t, chunks) +
                          static_cast<size_t>(chunk) * sizeof(dma_chunk_t) +
                          offsetof(dma_chunk_t, devs);
    return links_of(area.chunks._arr[chunk].devs, {area_list::refs, chunk}, offset);
}

inline bool is_zero(std::span<const uint8_t> bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

template <typename Record>
std::span<const uint8_t> raw(const Record& record) {
    return {reinterpret_cast<const uint8_t*>(&record), sizeof record};
}

/// Padding included.
template <typename Record>
bool same_bytes(const Record& one, const Record& other) {
    return std::memcmp(raw(one).data(), raw(other).data(), sizeof one) == 0;
}

/// A text field up to its terminator; nothing when it has none.
template <size_t Bytes>
std::optional<std::string_view> text_in(const char (&field)[Bytes]) {
    const char* end = std::find(field, field + Bytes, '\0');
    if (end == field + Bytes) {
        return std::nullopt;
    }
    return std::string_view(field, end);
}

/// The same, or all of the field where it has no terminator.
template <size_t Bytes>
std::string_view text_up_to_end(const char (&field)[Bytes]) {
    return {field, strnlen(field, Bytes)};
}

inline constexpr std::string_view head_name = "__HEAD";
inline constexpr std::string_view tail_name = "__TAIL";

/// Callers may give a chunk a sentinel's name, but never the size 0.
inline bool is_sentinel(const dma_chunk_t& chunk, std::string_view name) {
    return chunk.size == 0 && text_in(chunk.name) == name;
}

/// Whether devices see the chunk.
inline bool is_mapped(const dma_chunk_t& chunk) {
    const auto& refs = chunk.devs._arr;
    return std::any_of(std::begin(refs), std::end(refs),
                       [](const iommu_dev_ref& ref) { return ref.allocated != 0; });
}

/// Whether there are chunks or devices, which building an area does not make: an area in use that
/// says it was not built has lost its flag.
inline bool is_in_use(const shared_area_t& area) {
    const auto& chunks = area.chunks._arr;
    const auto& devices = area.devices._arr;
    return std::any_of(std::begin(chunks), std::end(chunks),
                       [](const auto& one) { return one.allocated != 0 && one.size != 0; }) ||
           std::any_of(std::begin(devices), std::end(devices),
                       [](const auto& one) { return one.allocated != 0; });
}

/// Whether such an area has lost its flag.
inline bool has_lost_flag(const shared_area_t& area) {
    return area.initialized == 0 && is_in_use(area);
}

/// Where the region lies, by the sentinels at the ends of the list; nothing where they are damaged.
inline std::optional<dma_window> region_in(const chunk_list& chunks) {
    const auto sentinel = [&chunks](int32_t end, std::string_view name) -> const dma_chunk_t* {
        const bool exists = end >= 0 && end < chunk_capacity;
        return exists && is_sentinel(chunks._arr[end], name) ? &chunks._arr[end] : nullptr;
    };
    const dma_chunk_t* const head = sentinel(chunks._head, head_name);
    const dma_chunk_t* const tail = sentinel(chunks._tail, tail_name);
    if (head == nullptr || tail == nullptr || head->pa >= tail->pa) {
        return std::nullopt;
    }
    return dma_window{head->pa, tail->pa};
}

/// The bytes between the sentinels.
struct region_bounds {
    uint64_t first_pa;
    uint64_t end_pa;

    /// Compared without a sum that could wrap.
    bool holds(const dma_chunk_t& chunk) const {
        return chunk.pa >= first_pa && chunk.pa <= end_pa && chunk.size <= end_pa - chunk.pa;
    }
};

} // namespace tarvoctl
