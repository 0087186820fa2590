#pragma once

#include "area/records.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace tarvoctl {

/// Why the records do not show where the next chunk goes; nothing where they do. Chunks may overlap
/// in a region where the kernel driver chooses the places.
std::optional<std::string> damage_to_places(const picture& records, bool driver_chooses);

/// Why no new chunk of that size can be had at all, as far as the records show: not in a region
/// where the kernel driver chooses the place, of which it alone knows what is free.
std::optional<std::string> obstacle_to(uint32_t size, const picture& records, bool driver_chooses);

} // namespace tarvoctl
