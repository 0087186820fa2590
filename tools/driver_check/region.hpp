#pragma once

#include "shared/dma_window.hpp"
#include "shared/region_line.hpp"

#include <cstdint>
#include <optional>

namespace driver_check {

uint64_t page_size();

dma_window window_of(const region_line& region);

/// The region that the driver describes, where it is one that can be.
std::optional<region_line> find_region();

} // namespace driver_check
