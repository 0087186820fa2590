#include "host/site.hpp"

#include "common/quantities.hpp"
#include "common/unique_fd.hpp"
#include "shared/paths.hpp"
#include "shared/region_line.hpp"
#include "shared/simulated_region.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// The library's is chosen by the variable alone, whatever the region is.
std::string lock_by_environment() {
    return simulation_is_asked_for() ? paths::simulated_lock : paths::hardware_lock;
}

bool may_make_files_in(const std::string& folder) {
    return ::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

/// Whether the library would take the simulated memory: it opens it for reading and writing, makes
/// it where the variable asks for that, and sets its length, which only a regular file has. That
/// fs.protected_regular may forbid opening it to make it is left to doctor: it is a fault of the
/// file's, and looking works all the same.
bool simulated_memory_can_be_used() {
    const unique_fd file{
        ::open(paths::simulated_memory, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    if (!file) {
        return errno == ENOENT && simulation_is_asked_for() &&
               may_make_files_in(std::filesystem::path{paths::simulated_memory}.parent_path());
    }
    struct stat found {};
    return ::fstat(file.get(), &found) == 0 && S_ISREG(found.st_mode);
}

/// Why that region, for people.
std::string reason_for(bool simulation) {
    const bool asked_for = simulation_is_asked_for();
    const std::string variable{simulation_variable};
    const std::string memory{paths::simulated_memory};
    if (simulation) {
        return asked_for ? variable + " is set" : memory + " exists";
    }
    if (asked_for) {
        return variable + " is set, but " + memory + " cannot be used";
    }
    const bool there = ::access(paths::simulated_memory, F_OK) == 0;
    return variable + " is not set and " + memory + (there ? " cannot be used" : " does not exist");
}

std::optional<driver_region> driver_region_here() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> driver{
        std::fopen(paths::region_driver, "re"), &std::fclose};
    region_line line{};
    if (!driver || std::fgets(line.text, sizeof line.text, driver.get()) == nullptr ||
        !parse(line)) {
        return std::nullopt;
    }
    return driver_region{line.first_pa, static_cast<uint32_t>(line.last_pa + 1 - line.first_pa),
                         line.is_cma(), fault_of(line)};
}

constexpr const char* name_a_region =
    "let the region driver's first line name a region that begins on a page above 0 and ends above "
    "its start";

} // namespace

std::optional<region_fault> fault_of(const region_line& line) {
    const uint64_t bytes = line.last_pa + 1 - line.first_pa;
    if (line.first_pa == 0 || line.last_pa <= line.first_pa) {
        return region_fault{
            fmt::format("describes an impossible region, {} to {}: every program that starts the "
                        "library ends by an assertion",
                        pa_text(line.first_pa), pa_text(line.last_pa)),
            name_a_region};
    }
    if (line.first_pa % static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)) != 0) {
        return region_fault{
            fmt::format("describes a region that does not begin on a page, but at {}: none of it "
                        "can be mapped",
                        pa_text(line.first_pa)),
            name_a_region};
    }
    if (bytes > std::numeric_limits<uint32_t>::max()) {
        return region_fault{
            fmt::format("describes a region of {}: the library counts in 32 bits and would use {} "
                        "of them",
                        size_text(bytes), size_text(static_cast<uint32_t>(bytes))),
            "reserve less than 4 GiB"};
    }
    return std::nullopt;
}

std::optional<dma_window> site::region() const {
    if (simulation) {
        return simulated_region;
    }
    if (!driver) {
        return std::nullopt;
    }
    return dma_window{driver->first_pa, driver->first_pa + driver->bytes};
}

bool simulation_is_asked_for() {
    return std::getenv(simulation_variable) != nullptr;
}

std::vector<std::string> site::locks_to_take() const {
    std::vector<std::string> taken;
    for (const auto& lock : locks) {
        const bool forbidden =
            ::faccessat(AT_FDCWD, lock.c_str(), R_OK, AT_EACCESS) != 0 && errno == EACCES;
        if (lock == own_lock || !forbidden) {
            taken.push_back(lock);
        }
    }
    return taken;
}

site find_site() {
    const bool simulation = simulated_memory_can_be_used();
    const std::string own_lock = lock_by_environment();
    std::vector<std::string> locks{paths::hardware_lock};
    if (simulation || own_lock == paths::simulated_lock) {
        locks.insert(locks.begin(), paths::simulated_lock);
    }
    return {simulation,
            reason_for(simulation),
            simulation ? paths::simulated_area : paths::hardware_area,
            simulation ? paths::simulated_memory : paths::physical_memory,
            own_lock,
            locks,
            simulation ? std::nullopt : driver_region_here()};
}

} // namespace tarvoctl
