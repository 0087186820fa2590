#pragma once

#include "area/changes.hpp"
#include "output/json.hpp"

#include <string>

namespace tarvoctl {

/// "moved         rx_ring: from physical 0x0080000000 to 0x0080010000"; no end of line.
std::string change_text(const change& told);

/// {"change": "moved", "chunk": {...}, "before": {...}, "device": null, "device_index": null}.
/// "before" is the chunk as it was, where it was moved or resized.
json json_change(const change& told);

} // namespace tarvoctl
