/* SPDX-License-Identifier: MIT */
#pragma once

#include "tarvo.h"
#include "tarvo/result.hpp"
#include "tarvo/units.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

/// @file
/// The region: where it lies, the translation of addresses, and a mapping of all of it.

namespace tarvo {

/// Where the region lies, for devices and for the processor. Its end counts as in it, as it does
/// for the library's translations.
struct limits {
    dma_address start;
    physical_address physical_start;
    bytes size;

    /// Differences wrap, so that an address below the start is far beyond the end.
    constexpr bool holds(dma_address dma) const noexcept {
        return dma >= start && dma - start <= size;
    }
    constexpr bool holds(physical_address pa) const noexcept {
        return pa >= physical_start && pa - physical_start <= size;
    }
};

/// Starts the library if need be, and tells where the region lies.
///
/// @return the limits; not_started when the library cannot start. It said why on standard error and
///         tries again at the next call.
///
/// Takes the lock to start, otherwise none.
inline result<limits> get_limits() noexcept {
    uint32_t start = 0;
    uint32_t end = 0;
    if (tarvo_get_limits(&start, &end) != 0) {
        return error(error_code::not_started,
                     "the library cannot start; the lines above on standard error say what it "
                     "looked for. Set SIMULATION_VMID to try without a device's memory");
    }
    // The end wraps with the addresses; the size does not, because it is below 4 GiB.
    return limits{dma_address(start), physical_address(tarvo_dma_to_pa(start)),
                  dma_address(end) - dma_address(start)};
}

/// Bytes that the shared bookkeeping takes. Starts nothing and takes no lock.
inline bytes get_overhead() noexcept {
    return bytes(tarvo_get_overhead());
}

/// Translates a DMA address.
///
/// @return the physical address; bad_address outside the region, not_started. Takes no lock.
inline result<physical_address> dma_to_pa(dma_address dma) noexcept {
    const result<limits> region = get_limits();
    if (!region) {
        return region.error();
    }
    if (!region->holds(dma)) {
        return error(error_code::bad_address,
                     "DMA address 0x%x is not in the region, which has 0x%llx bytes from 0x%x on",
                     dma.value(), static_cast<unsigned long long>(region->size.count()),
                     region->start.value());
    }
    return physical_address(tarvo_dma_to_pa(dma.value()));
}

/// Translates a physical address.
///
/// @return the DMA address; bad_address outside the region, not_started. Takes no lock.
inline result<dma_address> pa_to_dma(physical_address pa) noexcept {
    const result<limits> region = get_limits();
    if (!region) {
        return region.error();
    }
    if (!region->holds(pa)) {
        return error(error_code::bad_address,
                     "physical address 0x%llx is not in the region, which has 0x%llx bytes from "
                     "0x%llx on",
                     static_cast<unsigned long long>(pa.value()),
                     static_cast<unsigned long long>(region->size.count()),
                     static_cast<unsigned long long>(region->physical_start.value()));
    }
    return dma_address(tarvo_pa_to_dma(pa.value()));
}

/// The whole region in this process, readable and writable, for as long as the object lives. Any
/// number of objects share one mapping. Chunks of others lie in it: write only where you may.
class whole_region {
  public:
    /// Maps it. Move-only; the last object unmaps.
    ///
    /// @return the mapping; not_started; refused when the system does not map it. The library
    ///         counts a failed attempt and ends a process that makes a second one, so every later
    ///         call in this process returns refused at once.
    ///
    /// Takes no lock; other processes are not affected.
    static result<whole_region> map() noexcept {
        const result<limits> region = get_limits();
        if (!region) {
            return region.error();
        }
        void* memory = refused_before ? nullptr : tarvo_map_all();
        if (memory == nullptr) {
            refused_before = true;
            return error(error_code::refused,
                         "the system refuses to map the region of 0x%llx bytes; it is not asked "
                         "again in this process. Map single chunks",
                         static_cast<unsigned long long>(region->size.count()));
        }
        return whole_region(static_cast<std::byte*>(memory), *region);
    }

    whole_region(whole_region&& other) noexcept
        : _memory(std::exchange(other._memory, nullptr)), _limits(other._limits) {}
    whole_region& operator=(whole_region&& other) noexcept {
        whole_region taken(std::move(other));
        std::swap(_memory, taken._memory);
        std::swap(_limits, taken._limits);
        return *this;
    }
    whole_region(const whole_region&) = delete;
    whole_region& operator=(const whole_region&) = delete;
    ~whole_region() {
        if (_memory != nullptr) {
            tarvo_unmap_all();
        }
    }

    /// Its bytes; the first one is at where().start. None after it was moved from.
    std::span<std::byte> span() const noexcept {
        return {_memory, _memory != nullptr ? static_cast<size_t>(_limits.size.count()) : 0};
    }
    const limits& where() const noexcept { return _limits; }

  private:
    whole_region(std::byte* memory, const limits& region) noexcept
        : _memory(memory), _limits(region) {}

    inline static bool refused_before = false;

    std::byte* _memory;
    limits _limits;
};

} // namespace tarvo
