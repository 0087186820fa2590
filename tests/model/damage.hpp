#pragma once

#include "area.hpp"

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace model {

/// A number of the area that is overwritten, as another process or a fault of memory would.
struct damage {
    size_t offset;
    bool is_byte; ///< one byte of it only; otherwise four
    uint32_t value;

    void make(const area_writer& area) const;
    std::string shown() const;
};

/// Chooses, among the links, flags, names, addresses and sizes of an area in use, one to damage and
/// a value that is likely to matter: no element, the element itself, another one that is in use or
/// free, one out of range, any bits, or one bit changed.
damage choose_damage(std::mt19937& random, const area_view& now, int chunks_in_use);

} // namespace model
