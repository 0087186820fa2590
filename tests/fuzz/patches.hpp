#pragma once

#include "area.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>

// What the fuzzer says, as changes of an area: each takes eight bytes, where and what.

struct patch {
    size_t offset;
    uint32_t value;
};

inline constexpr size_t patch_bytes = 8;

inline constexpr int elements_patched = 8;

/// Within the first elements and the ends of both lists, where everything is that is in use.
inline size_t place_of(uint32_t where) {
    const size_t chunks = area_offset::chunk(elements_patched) - area_offset::chunk(0);
    const size_t devices = area_offset::device(elements_patched) - area_offset::device(0);
    constexpr size_t ends = 12;
    size_t place = where % (chunks + devices + 2 * ends);
    if (place < chunks) {
        return area_offset::chunk(0) + place;
    }
    place -= chunks;
    if (place < devices) {
        return area_offset::device(0) + place;
    }
    place -= devices;
    return place < ends ? area_offset::chunks_head + place
                        : area_offset::devices_head + place - ends;
}

inline patch patch_at(const uint8_t* bytes) {
    uint32_t words[2];
    std::memcpy(words, bytes, patch_bytes);
    return {place_of(words[0]), words[1]};
}
