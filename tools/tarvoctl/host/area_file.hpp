#pragma once

#include "host/new_file.hpp"
#include "shared/layout.hpp"

namespace tarvoctl {

/// Writes a copy of an area, compressed by gzip(1), to a file of its own that only its owner can
/// read. Throws failure.
void write_snapshot(const new_file::target& wanted, const shared_area_t& area);

/// The same bytes, to standard output.
void print_snapshot(const shared_area_t& area);

/// Writes a copy of an area to a file of its own, as long as a live one, which only its owner can
/// read. Pages of zeros take no room. Throws failure.
void write_area(const new_file::target& wanted, const shared_area_t& area);

} // namespace tarvoctl
