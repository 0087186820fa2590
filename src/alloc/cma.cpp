#include "shared/driver_lines.hpp"
#include "shared/open.hpp"
#include "shared/paths.hpp"
#include "tarvo.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

// Memory that the kernel's contiguous memory allocator backs: the driver chooses each chunk's
// address. Commands are lines written to the driver's file, answers are lines read from it. Called
// with the lock held.

namespace {

constexpr uint64_t cma_failure = ~uint64_t{0};

FILE* open_driver(const char* mode) {
    FILE* driver = open_stream(paths::region_driver, mode);
    if (driver == nullptr) {
        fprintf(stderr, "Error opening %s: %s\n", paths::region_driver, strerror(errno));
    }
    return driver;
}

/// Asks the driver for memory; true when it has given some, or had already. The command goes past
/// the stream's buffer in a single write, whose refusal shows at once.
bool request_allocation(const char* name, uint32_t size) {
    FILE* driver = open_driver("we");
    if (driver == nullptr) {
        return false;
    }
    char command[driver_line_bytes];
    const int length = snprintf(command, sizeof command, allocate_format, name, size_t{size});
    const size_t bytes = std::min(static_cast<size_t>(length), sizeof command - 1);
    const ssize_t written = write(fileno(driver), command, bytes);
    const bool refused = written == -1 && errno != EEXIST;
    if (refused) {
        fprintf(stderr, "Error allocating CMA: %s\n", strerror(errno));
    }
    fclose(driver);
    return !refused;
}

/// Looks for the allocation of that name and size among the lines after the region's own. The
/// first line that cannot be read as an allocation ends the search.
uint64_t find_allocation(FILE* driver, const char* name, uint32_t size) {
    char line[driver_line_bytes];
    if (fgets(line, sizeof line, driver) == nullptr) {
        fprintf(stderr, "Expected at least 1 line in %s\n", paths::region_driver);
        return cma_failure;
    }
    while (fgets(line, sizeof line, driver) != nullptr) {
        allocation_line listed;
        if (!parse(listed, line)) {
            fprintf(stderr, "Error parsing %s\n", paths::region_driver);
            return cma_failure;
        }
        if (strcmp(listed.name, name) == 0 && listed.bytes == size) {
            return listed.pa;
        }
    }
    return cma_failure;
}

} // namespace

uint64_t get_cma_allocation(const char* name, uint32_t size) {
    if (!request_allocation(name, size)) {
        return cma_failure;
    }
    FILE* driver = open_driver("re");
    if (driver == nullptr) {
        return cma_failure;
    }
    const uint64_t pa = find_allocation(driver, name, size);
    fclose(driver);
    return pa;
}

int64_t free_cma_allocation(const char* name, uint32_t size) {
    FILE* driver = open_driver("we");
    if (driver == nullptr) {
        return -1;
    }
    const int printed = fprintf(driver, release_format, name, size_t{size});
    if (printed < 0) {
        // The text of the negative result itself, not of errno.
        fprintf(stderr, "Error freeing CMA %s\n", strerror(printed));
    }
    // The line is sent when the stream closes, and a refusal then goes unreported.
    fclose(driver);
    return printed < 0 ? -1 : 0;
}
