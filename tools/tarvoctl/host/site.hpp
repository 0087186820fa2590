#pragma once

#include "shared/dma_window.hpp"
#include "shared/region_line.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarvoctl {

/// Why no program can use the region that the driver's first line describes.
struct region_fault {
    std::string text; ///< follows the driver's path
    std::string fix;
};

/// Nothing for a region that the library can use.
std::optional<region_fault> fault_of(const region_line& line);

/// The region as the library takes it from the region driver's first line.
struct driver_region {
    uint64_t first_pa;
    uint32_t bytes;
    bool cma;
    std::optional<region_fault> fault;
};

/// Which files the library would use if it were started here and now, found out without creating
/// any of them.
struct site {
    bool simulation;
    std::string reason; ///< why that one, for people
    std::string area;
    std::string memory;
    /// The lock file the library would take, with the environment as it is.
    std::string own_lock;
    /// All lock files that processes of this area may be using, in the order in which to take them:
    /// in simulation some may run with the variable and some without.
    std::vector<std::string> locks;
    /// Those of `locks` that a look takes: the library's own, and what else may be opened. The
    /// library takes its own alone, and so works for users who may not open the others.
    std::vector<std::string> locks_to_take() const;
    /// What the region driver's first line says, where it is used and can be read.
    std::optional<driver_region> driver;

    /// Whether the kernel's allocator chooses the addresses of chunks.
    bool is_cma() const { return driver && driver->cma; }
    /// Where the region of this machine lies, where that can be known.
    std::optional<dma_window> region() const;
};

site find_site();

/// Whether the environment selects simulation.
bool simulation_is_asked_for();

} // namespace tarvoctl
