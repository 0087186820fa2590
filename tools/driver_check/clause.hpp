#pragma once

#include "shared/region_line.hpp"
#include "tarvo/device.hpp"

#include <optional>
#include <span>
#include <string>

namespace driver_check {

/// What the checks have to work with.
struct subject {
    std::optional<region_line> region; ///< where the driver describes a possible one
    std::optional<tarvo::device> device;
    std::optional<tarvo::device> absent_device;

    bool is_cma() const { return region && region->is_cma(); }
};

/// What a check needs; without it the check is skipped.
enum class need { nothing, region, plain_region, cma_region, device, cma_device, absent_device };

/// Thrown by a check whose clause does not hold; the text says what the driver did and what is
/// wanted instead.
struct breach {
    std::string text;
};

/// Thrown by a check that finds out only while it runs that there is nothing to check.
struct not_applicable {
    std::string reason;
};

/// Throws a breach unless it holds.
inline void require(bool holds, const std::string& text) {
    if (!holds) {
        throw breach{text};
    }
}

/// One clause of docs/driver.md, and how it is checked.
struct clause {
    const char* number;
    const char* title;
    need needs;
    void (*check)(const subject&);
};

/// All clauses that can be checked, in the order of the page, a group for each of its sections.
std::span<const clause> region_clauses();
std::span<const clause> memory_clauses();
std::span<const clause> allocator_clauses();
std::span<const clause> request_clauses();
std::span<const clause> device_clauses();
std::span<const clause> answer_clauses();

} // namespace driver_check
