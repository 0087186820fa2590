#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

inline constexpr uint64_t four_gib = 0x100000000;
/// Where devices see the first byte of a region that does not end below 4 GiB.
inline constexpr uint32_t high_start_dma = 0x20000000;

/// A machine that the library can find itself on, as `tarvo-sandbox --world` builds it.
struct world {
    const char* name;
    uint64_t start;     ///< physical address of the region's first byte
    uint64_t bytes;     ///< of the region
    uint32_t start_dma; ///< where devices see the first byte
    bool simulated;
    bool cma;

    uint64_t end() const { return start + bytes; }
    uint32_t end_dma() const { return start_dma + static_cast<uint32_t>(bytes); }
    uint32_t dma(uint64_t pa) const { return start_dma + static_cast<uint32_t>(pa - start); }

    /// Paths as programs in it see them.
    const char* area_path() const {
        return simulated ? "/var/tmp/tarvo_lib" : "/var/shmem/tarvo_lib";
    }
    const char* lock_path() const {
        return simulated ? "/var/tmp/tarvo_lock" : "/var/lock/subsys/tarvo_lock";
    }
    const char* memory_path() const { return simulated ? "/var/tmp/tarvo" : "/dev/mem"; }
};

// The table of worlds: CMake and the tests of the Python package read these lines, too.
inline constexpr world simulation{"simulation", 0x1000, 0x2a800000, 0x1000, true, false};
inline constexpr world low{"low", 0x80000000, 0x10000000, 0x80000000, false, false};
inline constexpr world high{"high", 0x200000000, 0x40000000, 0x20000000, false, false};
inline constexpr world crossing{"crossing", 0xf0000000, 0x20000000, 0x20000000, false, false};
inline constexpr world cma{"cma", 0x100000000, 0x40000000, 0x20000000, false, true};

inline const std::vector<world>& all_worlds() {
    static const std::vector<world> all{simulation, low, high, crossing, cma};
    return all;
}

inline std::vector<world> hardware_worlds() {
    return {low, high, crossing, cma};
}

/// The worlds in which the library itself chooses where chunks lie.
inline std::vector<world> region_worlds() {
    return {simulation, low, high, crossing};
}

inline std::ostream& operator<<(std::ostream& stream, const world& w) {
    return stream << w.name;
}

/// For INSTANTIATE_TEST_SUITE_P: the world's name becomes the test's.
struct world_name {
    template <typename Info>
    std::string operator()(const Info& info) const {
        return info.param.name;
    }
};

/// Bytes of a page of this machine.
uint64_t page_bytes();
uint64_t pages(uint64_t count);
uint64_t rounded_to_pages(uint64_t bytes);
