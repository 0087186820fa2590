#include "host/site.hpp"

#include "host/simulated_region.hpp"
#include "shared/paths.hpp"
#include "shared/region_line.hpp"

#include <memory>

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace tarvoctl {

namespace {

std::string lock_by_environment() {
    return simulation_is_asked_for() ? paths::simulated_lock : paths::hardware_lock;
}

site simulated_site(const std::string& reason) {
    return {true,
            reason,
            paths::simulated_area,
            paths::simulated_memory,
            lock_by_environment(),
            {paths::simulated_lock, paths::hardware_lock},
            std::nullopt};
}

std::optional<driver_region> driver_region_here() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> driver{
        std::fopen(paths::region_driver, "re"), &std::fclose};
    region_line line{};
    if (!driver || std::fgets(line.text, sizeof line.text, driver.get()) == nullptr || !parse(line))
        return std::nullopt;
    return driver_region{line.first_pa, static_cast<uint32_t>(line.last_pa + 1 - line.first_pa),
                         line.is_cma()};
}

} // namespace

std::optional<dma_window> site::region() const {
    if (simulation)
        return simulated_region;
    if (!driver)
        return std::nullopt;
    return dma_window{driver->first_pa, driver->first_pa + driver->bytes};
}

bool simulation_is_asked_for() {
    return std::getenv(simulation_variable) != nullptr;
}

site find_site() {
    if (simulation_is_asked_for())
        return simulated_site(std::string{simulation_variable} + " is set");
    // The library opens it for reading and writing, and takes the hardware where it cannot.
    if (::access(paths::simulated_memory, R_OK | W_OK) == 0)
        return simulated_site(std::string{paths::simulated_memory} + " is there");
    const bool missing = errno == ENOENT;
    return {false,
            std::string{simulation_variable} + " is not set and " + paths::simulated_memory +
                (missing ? " is not there" : " cannot be opened"),
            paths::hardware_area,
            paths::physical_memory,
            paths::hardware_lock,
            {paths::hardware_lock},
            driver_region_here()};
}

} // namespace tarvoctl
