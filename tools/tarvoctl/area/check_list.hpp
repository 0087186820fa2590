#pragma once

#include "check_report.hpp"
#include "raw_records.hpp"

#include <vector>

namespace tarvoctl {

/// Where a list's elements were met.
struct list_members {
    std::vector<int> listed; ///< in the order of the walk, as far as it could go
    std::vector<int> free;   ///< likewise of the free chain
};

/// Checks one list's ends, links, flags and free chain, and whether its free elements are zero.
list_members check_list(const list_links& links, report& found);

} // namespace tarvoctl
