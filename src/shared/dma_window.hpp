#pragma once

#include <cstdint>

/// Where devices see a region: one that lies below 4 GiB where it is, and any other one from
/// high_region_dma on. Physical addresses are 64-bit, DMA addresses 32-bit and may wrap; whether an
/// address lies in the region is the caller's to ask.
struct dma_window {
    uint64_t first_pa; ///< of the region
    uint64_t end_pa;   ///< one past its last byte

    static constexpr uint32_t high_region_dma = 0x20000000;

    /// Whether the region, or the first byte after it, is out of reach of a 32-bit address.
    constexpr bool is_high() const { return (first_pa >> 32) != 0 || (end_pa >> 32) != 0; }

    constexpr uint64_t pa_of(uint32_t dma) const {
        return is_high() ? first_pa - high_region_dma + dma : dma;
    }

    constexpr uint32_t dma_of(uint64_t pa) const {
        const auto low_pa = static_cast<uint32_t>(pa);
        return is_high() ? low_pa - static_cast<uint32_t>(first_pa) + high_region_dma : low_pa;
    }
};
