#pragma once

#include "finding.hpp"
#include "shared/layout.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tarvoctl {

/// What the machine says of its region, to compare with what the area says.
struct expected_region {
    uint64_t first_pa = 0;
    uint64_t size_bytes = 0;
};

struct check_options {
    uint32_t page_bytes = 4096;
    /// The kernel driver chooses the addresses: chunks may overlap.
    bool cma = false;
    /// Not compared when nothing is known of it.
    std::optional<expected_region> region;
    /// How many findings of one rule are listed; all are counted.
    size_t listed_per_rule = 16;
};

/// Checks an area, whatever its bytes are, in bounded time and without changing or trusting
/// anything. Take a copy under the lock: one that changes meanwhile is read safely, but the
/// findings may be wrong. Only the content is looked at, not the zeros that fill the file's last
/// page.
std::vector<finding> check_area(const shared_area_t& area, const check_options& options = {});

/// Whether some finding is of that class.
bool has_class(const std::vector<finding>& findings, finding_class cls);

/// Whether the area is that of another region than the machine's: no repair helps then.
bool is_of_another_region(const std::vector<finding>& findings);

} // namespace tarvoctl
