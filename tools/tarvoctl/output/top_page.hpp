#pragma once

#include "area/records.hpp"
#include "host/mappings.hpp"
#include "output/screen.hpp"

#include <cstddef>
#include <string>

namespace tarvoctl {

/// What a page of top is made from.
struct top_view {
    const picture& records;
    const mapped_memory& memory;
    std::string title; ///< the first line
    screen on;
    std::size_t height; ///< lines there are; 0: as many as it takes
};

/// The region, its free space, its chunks by size and the devices. Lines end with "\n", but for the
/// last one of a page with a height.
std::string top_page(const top_view& view);

} // namespace tarvoctl
