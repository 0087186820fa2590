#pragma once

#include <cstdint>
#include <sys/types.h>

// Every file of the system, with the mode it is created with.

namespace paths {

inline constexpr const char* simulated_memory = "/var/tmp/tarvo";
inline constexpr const char* simulated_area = "/var/tmp/tarvo_lib";
inline constexpr const char* simulated_lock = "/var/tmp/tarvo_lock";

inline constexpr const char* region_driver = "/proc/tarvo";
inline constexpr const char* physical_memory = "/dev/mem";
inline constexpr const char* hardware_area = "/var/shmem/tarvo_lib";
inline constexpr const char* hardware_lock = "/var/lock/subsys/tarvo_lock";

inline constexpr const char* iommu_driver = "/sys/kernel/tarvo_iommu_map_region";

} // namespace paths

inline constexpr mode_t simulation_mode = 0666; ///< with the umask cleared
inline constexpr mode_t hardware_mode = 0600;

/// Its presence selects simulation; its value means nothing.
inline constexpr const char* simulation_variable = "SIMULATION_VMID";

/// The simulated region. Its file begins at physical address 0, so that file offsets are physical
/// addresses; the bytes below the region are never used.
inline constexpr uint64_t simulated_region_first_pa = 0x1000;
inline constexpr uint32_t simulated_region_bytes = 0x2a800000;
inline constexpr uint32_t simulated_memory_bytes =
    simulated_region_first_pa + simulated_region_bytes;

/// The region's name that says that chunks come from the kernel's contiguous memory allocator.
inline constexpr const char* cma_region_name = "CMA";

/// Enough for any line of the region driver, terminator included.
inline constexpr int driver_line_bytes = 2048;
