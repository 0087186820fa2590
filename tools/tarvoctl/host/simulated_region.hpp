#pragma once

#include "shared/dma_window.hpp"

namespace tarvoctl {

/// Where the region of a simulation always lies; its memory file reaches from address 0 to its end.
inline constexpr dma_window simulated_region{0x1000, 0x1000 + 0x2a800000};

} // namespace tarvoctl
