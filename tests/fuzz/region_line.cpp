// The first line of the region driver's file, whatever its bytes are: start-up reads it or refuses.

#include "shared/open.hpp"
#include "shared/process_state.hpp"
#include "shared/region.hpp"
#include "target.hpp"

#include <cerrno>
#include <unistd.h>

namespace {

const uint8_t* driver_bytes = nullptr;
size_t driver_size = 0;
FILE* driver = nullptr; ///< as the library opened it

} // namespace

// The machine: no simulation, files that open, and a driver that says what the fuzzer says.

int open_with_exact_mode(const char* /*path*/, int /*flags*/, mode_t /*mode*/) {
    errno = ENOENT;
    return -1;
}

int open_file(const char* /*path*/, int /*flags*/, mode_t /*mode*/) {
    return dup(STDIN_FILENO);
}

FILE* open_stream(const char* /*path*/, const char* /*mode*/) {
    driver = fmemopen(const_cast<uint8_t*>(driver_bytes), driver_size, "r");
    return driver;
}

int try_bytes(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    driver_bytes = data;
    driver_size = size;
    bool found = false;
    const bool came_back = ends_without_assertion([&] { found = find_region(); });
    expect(!found || region_start != 0, "a region that starts at 0 is refused");
    expect(came_back || !found, "what an assertion ends is not found");
    if (!came_back) {
        fclose(driver);
    } else if (found) {
        close(mem_fd);
        close(shm_fd);
    }
    return 0;
}
