#pragma once

#include "clause.hpp"

#include <string>
#include <vector>

namespace driver_check {

enum class verdict { passed, failed, skipped };

struct result {
    const clause* checked;
    verdict found;
    std::string text; ///< what is wrong, or why it was skipped
};

/// Checks every clause, in the order of the page. Throws failure where no clause can be checked
/// here.
std::vector<result> run_checks(const subject& all);

} // namespace driver_check
