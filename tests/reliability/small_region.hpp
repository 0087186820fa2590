#pragma once

#include <span>
#include <string_view>

// A few chunks and devices, on a machine of the world `low` with a region of its own, and each call
// that there is for them.

/// Registers two devices and makes three chunks, with room between them. False where that fails.
bool fill_region();

/// Where the library has mapped the area in this process.
char* mapped_area();

/// From here on what this process writes to the area is its own, and what it wrote so before is
/// forgotten. False where that fails.
bool detach_area(char* area);

struct call {
    std::string_view name;
    void (*make)();
};

std::span<const call> calls();
