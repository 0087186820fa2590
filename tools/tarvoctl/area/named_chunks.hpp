#pragma once

#include "area/records.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

/// All chunks of that name, the one that calls find first. Throws failure, with the names that
/// are similar, when there is none.
std::vector<const chunk_record*> chunks_called(const std::string& name, const picture& records);

} // namespace tarvoctl
