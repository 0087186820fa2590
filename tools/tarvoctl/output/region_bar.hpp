#pragma once

#include "area/records.hpp"
#include "output/screen.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

/// One cell of a picture of the region.
struct bar_cell {
    /// `overlapping` and `unknown`: some of it at least.
    enum class content { free, partly, full, overlapping, unknown };
    content what = content::free;
    int chunk = -1; ///< position of the chunk that has most of it; -1: none
};

/// The region cut into `cells` pieces of equal length.
std::vector<bar_cell> cells_of(const picture& records, std::size_t cells);

/// The region as lines of letters, each with the physical address of its first byte before it.
std::string region_bar(const picture& records, const screen& on, std::size_t most_lines);

/// The same picture for a report, as an SVG document.
std::string region_svg(const picture& records);

} // namespace tarvoctl
