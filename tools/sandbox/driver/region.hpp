#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

/// /dev/mem is a sparse file that reaches to the region's end; no file system here holds a larger
/// one than this, and no processor of today has more physical address bits.
inline constexpr uint64_t largest_pa = (uint64_t{1} << 52) - 1;

/// The reserved region as the kernel describes it; last_pa is its last byte.
struct region {
    uint64_t first_pa = 0;
    uint64_t last_pa = 0;
    std::string name;

    bool is_cma() const { return name == "CMA"; }
    bool is_usable() const { return first_pa <= last_pa && last_pa <= largest_pa; }
};

/// The first line of /proc/tarvo, newline included.
std::string region_line(const region& described);

/// The region that such a line describes; none where it describes no usable one.
std::optional<region> region_of_line(std::string_view line);

} // namespace sandbox
