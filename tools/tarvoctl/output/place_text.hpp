#pragma once

#include "area/finding.hpp"
#include "output/json.hpp"
#include "shared/layout.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

/// A place in that area with what the record of its chunk or device says, whatever that is: "chunk
/// 3 'rx_ring' (creator driver), device reference 0", "device 1 (0000:03:00.0)".
std::string place_text(const place& where, const shared_area_t& area);

/// "chunk 3 'rx_ring' (creator driver): size is 0 ... [chunk-size-zero]"
std::string finding_text(const finding& each, const shared_area_t& area);

/// A place as the members where, chunk, device, element and reference.
json json_place(const place& where, const shared_area_t& area);
json json_findings(const std::vector<finding>& findings, const shared_area_t& area);

} // namespace tarvoctl
