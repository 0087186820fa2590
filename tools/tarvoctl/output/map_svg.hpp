#pragma once

#include "output/map_layout.hpp"

#include <string>

namespace tarvoctl {

/// A page as an SVG document: black on white, in print as well, and light on dark where the reader
/// prefers that.
std::string svg_of(const map_page& page);

} // namespace tarvoctl
