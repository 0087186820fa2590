#pragma once

#include "driver/cma_table.hpp"
#include "driver/rule.hpp"

#include <string>
#include <vector>

namespace sandbox {

/// What a read of /proc/tarvo gives: the region line, then one line per allocation; altered as the
/// rule, which may be null, says.
std::string make_listing(const std::string& region_line,
                         const std::vector<cma_allocation>& allocations, const rule* altering);

} // namespace sandbox
