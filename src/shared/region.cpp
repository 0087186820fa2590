#include "shared/region.hpp"

#include "assertion.hpp"
#include "shared/open.hpp"
#include "shared/paths.hpp"
#include "shared/process_state.hpp"
#include "shared/region_line.hpp"
#include "shared/simulated_region.hpp"
#include "shared/trace.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

/// Opens the stand-in for physical memory and gives it its size. It is created only for a process
/// that asks for simulation; one that is already there selects simulation for everybody.
bool open_simulated_memory() {
    constexpr const char* function = "tarvo_sim_init";
    const bool asked_for = getenv(simulation_variable) != nullptr;
    mem_fd = open_with_exact_mode(paths::simulated_memory, O_RDWR | (asked_for ? O_CREAT : 0),
                                  simulation_mode);
    if (mem_fd == -1) {
        TARVO_TRACE(trace_progress, function, "%s: open %s failed - %s", function,
                    paths::simulated_memory, strerror(errno));
        return false;
    }
    if (ftruncate(mem_fd, static_cast<off_t>(simulated_region.end_pa)) != 0) {
        const int refusal = errno;
        close(mem_fd);
        TARVO_TRACE(trace_progress, function, "%s: ftruncate %s failed - %s", function,
                    paths::simulated_memory, strerror(refusal));
        return false;
    }
    return true;
}

/// Reports that a shared area file would not open. The memory opened with it is closed.
void give_up_area(const char* path) {
    const int refusal = errno;
    close(mem_fd);
    fprintf(stderr, "Failed to open %s: %s\n", path, strerror(refusal));
}

/// The simulated region. `is_simulation` stays set when only its shared area will not open, and
/// `mem_fd` keeps the number of a descriptor closed in here.
bool tarvo_sim_init() {
    if (!open_simulated_memory()) {
        return false;
    }
    is_simulation = true;
    region_size = static_cast<uint32_t>(simulated_region.end_pa - simulated_region.first_pa);
    region_start = simulated_region.first_pa;
    shm_fd = open_with_exact_mode(paths::simulated_area, O_RDWR | O_CREAT, simulation_mode);
    if (shm_fd == -1) {
        give_up_area(paths::simulated_area);
        return false;
    }
    return true;
}

bool read_region_line(FILE* driver, region_line& line) {
    if (fgets(line.text, sizeof line.text, driver) == nullptr) {
        fprintf(stderr, "Couldn't read from %s\n", paths::region_driver);
        return false;
    }
    if (!parse(line)) {
        fprintf(stderr, "tarvo: failed to parse %s\n", paths::region_driver);
        return false;
    }
    return true;
}

/// Takes over the region that the driver describes.
void adopt_region(const region_line& line) {
    const unsigned long long start = line.first_pa;
    const unsigned long long end = line.last_pa;
    is_cma = line.is_cma();
    TARVO_TRACE(trace_progress, "tarvo_devmem_init",
                "tarvo: searched %s, found line '%s', start: %llx, end: %llx", paths::region_driver,
                line.text, start, end);
    TARVO_ASSERT_AT(start && (end > start), "start && (end > start)", "tarvo", __LINE__,
                    "int tarvo_devmem_init()");
    region_size = static_cast<uint32_t>(end + 1 - start);
    region_start = start;
}

bool open_hardware_files() {
    mem_fd = open_file(paths::physical_memory, O_RDWR);
    if (mem_fd == -1) {
        perror("tarvo: failed to open DMA memory\n");
        return false;
    }
    shm_fd = open_file(paths::hardware_area, O_RDWR | O_CREAT, hardware_mode);
    if (shm_fd == -1) {
        give_up_area(paths::hardware_area);
        return false;
    }
    return true;
}

/// The region that the kernel driver describes.
bool tarvo_devmem_init() {
    FILE* driver = open_stream(paths::region_driver, "re");
    if (driver == nullptr) {
        perror("tarvo: failed to open /proc/tarvo\n");
        return false;
    }
    region_line line;
    bool found = read_region_line(driver, line);
    if (found) {
        adopt_region(line);
        found = open_hardware_files();
    }
    fclose(driver);
    return found;
}

} // namespace

bool find_region() {
    if (tarvo_sim_init() || tarvo_devmem_init()) {
        return true;
    }
    constexpr const char* function = "tarvo_init";
    constexpr const char* complaint = "no DMA memory found\n"
                                      "SIMULATION_VMID environ variable probably missing";
    fprintf(stderr, "%s: %s\n", function, complaint);
    TARVO_TRACE(trace_failure, function, "%s: %s", function, complaint);
    return false;
}
