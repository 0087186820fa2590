#pragma once

#include "area/records.hpp"
#include "host/mappings.hpp"
#include "output/process_text.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

// What stands where on a picture of the region for a page, in pixels from its upper left corner.

/// What a box stands for.
enum class map_look { even, odd, many, free, overlapping, unknown };

struct map_box {
    double x;
    double y;
    double width;
    double height;
    map_look look;
    std::string title; ///< shown by viewers that know where they point to
};

/// Text on one line; `y` is its base line.
struct map_text {
    double x;
    double y;
    std::string text;
    bool is_heading;
};

/// From a piece down to its label.
struct map_line {
    double x;
    double from_y;
    double to_y;
};

/// A number in a square, for a device, or in a circle, for a process.
struct map_mark {
    double x; ///< of its left edge
    double y; ///< of its upper edge
    bool is_device;
    std::string number; ///< in the legend
};

struct map_page {
    double width = 0;
    double height = 0;
    std::vector<map_box> boxes;
    std::vector<map_line> lines;
    std::vector<map_text> texts;
    std::vector<map_mark> marks;
};

inline constexpr double map_text_size = 12;
inline constexpr double map_mark_size = 14;

/// How wide a text is at most, in the fonts that are used for it.
double width_on_page(const std::string& text);

/// The whole page. `memory`: who maps the region; null where that is unknown, as of a copy.
map_page layout_of(const picture& records, const mapped_memory* memory, process_table& processes);

} // namespace tarvoctl
