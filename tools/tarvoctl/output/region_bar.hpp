#pragma once

#include "area/records.hpp"
#include "output/screen.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarvoctl {

/// A picture of the region as lines of signs. Chunks side by side differ in their sign, and in
/// colour where there is one.
struct region_picture {
    std::string text;   ///< each line begins with the physical address of its first byte
    std::string legend; ///< what the signs mean, and how many bytes one stands for
    uint64_t sign_bytes = 0;
    std::map<const chunk_record*, char> letters; ///< of chunks that have no room for their name
};

/// `lettered`: those that get a letter where there is no room for their name. `most_lines` of text
/// at most. The region must be known.
region_picture draw_region(const picture& records, const screen& on, size_t most_lines,
                           const std::vector<const chunk_record*>& lettered);

/// The lines alone, without letters.
std::string region_bar(const picture& records, const screen& on, size_t most_lines);

} // namespace tarvoctl
