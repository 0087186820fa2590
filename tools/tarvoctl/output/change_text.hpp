#pragma once

#include "area/changes.hpp"
#include "output/json.hpp"

#include <string>

namespace tarvoctl {

/// "freed         rx_ring: 4 KiB at physical 0x0080000000, creator driver"; no end of line.
std::string change_text(const change& each);

/// {"change": "replaced", "chunk": {...}, "before": {...}, "device": null, "device_index": null}.
/// "before" is the chunk as it was, where it was replaced.
json json_change(const change& each);

} // namespace tarvoctl
