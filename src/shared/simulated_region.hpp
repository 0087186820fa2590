#pragma once

#include "shared/dma_window.hpp"

/// The region of every simulation. The file that stands for memory begins at physical address 0, so
/// that file offsets are physical addresses, and ends with the region; the bytes below the region
/// are never used.
inline constexpr dma_window simulated_region{0x1000, 0x1000 + 0x2a800000};
