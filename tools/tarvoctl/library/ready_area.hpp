#pragma once

#include "area/records.hpp"

#include <chrono>

namespace tarvoctl {

/// What is on record, of an area that the library can be called on: it is there, with the files
/// that the library would otherwise make, they can be opened, and the records are sound as far as
/// the library's calls look. Makes nothing. Throws failure.
picture ready_area(std::chrono::milliseconds timeout);

/// The same for calls that make the region the first time they are used: starts the library where
/// there is no area yet.
picture ready_or_new_area(std::chrono::milliseconds timeout);

} // namespace tarvoctl
