#pragma once

#include <sys/types.h>

// What the library shares with the world outside, named once: every file, the modes files are
// created with, the variable that selects simulation.

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

inline constexpr mode_t simulation_mode = 0666; ///< the simulated region is everybody's
inline constexpr mode_t hardware_mode = 0600;

/// Its presence selects simulation; its value means nothing.
inline constexpr const char* simulation_variable = "SIMULATION_VMID";

/// Enough for any line of the region driver, terminator included.
inline constexpr int driver_line_bytes = 2048;
