#pragma once

#include "shared/layout.hpp"

#include <string>

namespace tarvoctl {

enum class existing_file { refused, replaced };

/// Writes a copy of an area to a file of its own, as long as a live one, which only its owner can
/// read. Pages of zeros take no room. Throws failure.
void write_area(const std::string& path, const shared_area_t& area, existing_file existing);

} // namespace tarvoctl
