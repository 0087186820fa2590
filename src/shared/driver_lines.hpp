#pragma once

#include "shared/paths.hpp"

#include <cstdio>

// The lines to and from the kernel driver besides the region's own, as printf and scanf have them.
// docs/driver.md says what the driver makes of each.

/// Operation, domain, bus, devfn, first and last physical address, DMA address, protection.
inline constexpr char request_format[] = "%s %d %d %d %llu %llu %lu %d\n";

/// Commands to the contiguous memory allocator: name and size.
inline constexpr char allocate_format[] = "a %s %zx\n";
inline constexpr char release_format[] = "r %s %zx\n";

/// What the driver's listing says of one allocation.
struct allocation_line {
    char name[driver_line_bytes];
    unsigned long long pa;
    unsigned long long bytes;
};

/// Fills it in from a line's text, which has less than driver_line_bytes; false unless all three
/// fields are there.
inline bool parse(allocation_line& line, const char* text) {
    return sscanf(text, "%s\t%llx\t%llx", line.name, &line.pa, &line.bytes) == 3;
}
