#pragma once

#include "area/records.hpp"
#include "host/mappings.hpp"
#include "output/screen.hpp"

#include <cstddef>
#include <string>

namespace tarvoctl {

/// By what the chunks of a page are sorted.
enum class top_order { size, name, address };

/// So many columns of the chunks can be shifted out; the name and one more stay.
inline constexpr size_t most_shifted_columns = 4;

/// What a page of top is made from.
struct top_view {
    const picture& records;
    const mapped_memory& memory;
    std::string title; ///< the first line
    screen on;
    size_t height; ///< lines there are; 0: as many as it takes
    top_order order = top_order::size;
    size_t shifted_columns = 0; ///< of the chunks, left out so that those after them are seen
    size_t first_chunk = 0;     ///< of those in that order, where there is no room for all
};

/// A page and what of the chunks is on it.
struct top_drawing {
    std::string text;   ///< lines end with "\n", but for the last one of a page with a height
    size_t first_chunk; ///< as wanted, but no further than leaves the page full
    size_t chunks;
};

/// The region, its free space, its chunks and the devices. A low page has only the free space and
/// the chunks; one with a height ends with what it shows of them and the keys for the rest.
top_drawing top_page(const top_view& view);

} // namespace tarvoctl
