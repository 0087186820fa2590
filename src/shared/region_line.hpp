#pragma once

#include "shared/paths.hpp"

#include <cstdio>
#include <cstring>

/// What the region driver's first line says. Addresses are physical, the last one inclusive.
struct region_line {
    char text[driver_line_bytes];
    unsigned long long first_pa;
    unsigned long long last_pa;
    char name[driver_line_bytes];

    /// Whether chunks come from the kernel's contiguous memory allocator.
    bool is_cma() const { return strcmp(name, "CMA") == 0; }
};

/// Fills in the rest from `text`; false unless all four fields are there.
inline bool parse(region_line& line) {
    unsigned long long ignored = 0;
    return sscanf(line.text, "%llx\t%llx\t%llx\t%s", &line.first_pa, &line.last_pa, &ignored,
                  line.name) == 4;
}
