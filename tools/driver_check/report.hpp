#pragma once

#include "run.hpp"

#include <string>
#include <vector>

namespace driver_check {

/// As the Test Anything Protocol has it, version 13.
std::string tap_text(const std::vector<result>& results);

/// As one JSON object.
std::string json_text(const subject& all, const std::vector<result>& results);

} // namespace driver_check
