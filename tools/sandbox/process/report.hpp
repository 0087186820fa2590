#pragma once

#include "common/failure.hpp"

#include <cstdio>
#include <exception>

namespace sandbox {

/// Prints the one line that the tool has for a failure, and returns the exit status for it.
inline int report(const std::exception& wrong) {
    std::fprintf(stderr, "tarvo-sandbox: %s\n", wrong.what());
    const auto* const known = dynamic_cast<const failure*>(&wrong);
    return static_cast<int>(known == nullptr ? exit_status::trouble : known->status());
}

} // namespace sandbox
