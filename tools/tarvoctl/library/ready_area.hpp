#pragma once

#include "area/finding.hpp"
#include "area/records.hpp"
#include "common/exit_status.hpp"

#include <chrono>
#include <functional>
#include <optional>

namespace tarvoctl {

/// What is on record, of an area that the library can be called on: it is there, with the files
/// that the library would otherwise make, they can be opened, and the records are sound as far as
/// the library's calls look. Damage that the call to come helps against is
/// accepted. Makes nothing. Throws failure.
picture ready_area(std::chrono::milliseconds timeout, std::optional<remedy> call = std::nullopt);

/// The same for calls that make the region the first time they are used: where there is no area
/// yet, what is on record in a new one.
picture ready_or_new_area(std::chrono::milliseconds timeout);

/// in_library() for such a call. Starts the library first; a start that fails is a failure of its
/// own.
exit_status in_started_library(std::chrono::milliseconds timeout,
                               const std::function<exit_status()>& work);

} // namespace tarvoctl
