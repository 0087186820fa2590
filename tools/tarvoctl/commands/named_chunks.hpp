#pragma once

#include "area/records.hpp"
#include "output/json.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

/// All chunks of that name, the one that calls find first. Throws failure, with the names that
/// are similar, when there is none, or that the list could not be read to its end.
std::vector<const chunk_record*> chunks_called(const std::string& name, const picture& records);

/// The names of chunks, for a document.
json json_names(const std::vector<const chunk_record*>& chunks);

} // namespace tarvoctl
