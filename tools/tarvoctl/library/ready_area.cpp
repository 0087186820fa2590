#include "library/ready_area.hpp"

#include "common/unique_fd.hpp"
#include "failure.hpp"
#include "host/area_follower.hpp"
#include "host/area_source.hpp"
#include "library/library_call.hpp"
#include "output/text.hpp"
#include "tarvo.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

enum class missing_file { accepted, refused };

/// Whether the library, started now, could open the file as it would.
void check_file(const std::string& path, int access, missing_file when_missing) {
    const unique_fd file{::open(path.c_str(), access | O_CLOEXEC)};
    if (file || (errno == ENOENT && when_missing == missing_file::accepted))
        return;
    const int number = errno;
    const bool forbidden = number == EACCES || number == EPERM;
    throw failure{exit_status::unreadable,
                  fmt::format("cannot open {} for {}: {}; {}", path,
                              access == O_RDWR ? "reading and writing" : "reading",
                              error_text(number),
                              forbidden ? "run it as root" : "'tarvoctl doctor' tells more")};
}

void check_files(const site& here, missing_file when_missing) {
    if (!here.simulation && !here.driver) {
        throw failure{
            exit_status::unreadable,
            fmt::format("there is no region: /proc/tarvo is missing or does not describe "
                        "one, and {}. Load the kernel driver, or run with SIMULATION_VMID "
                        "set",
                        here.reason)};
    }
    check_file(here.memory, O_RDWR, here.simulation ? when_missing : missing_file::refused);
    check_file(here.area, O_RDWR, when_missing);
    check_file(here.own_lock, O_RDONLY, when_missing);
}

[[noreturn]] void refuse_damaged(const std::string& what) {
    throw failure{exit_status::damaged,
                  what + ": the library would break off the call, or make it worse; see 'tarvoctl "
                         "check' and 'tarvoctl repair'"};
}

void check_region(const site& here, const dma_window& region) {
    if (!here.driver)
        return;
    const uint64_t end_pa = here.driver->first_pa + here.driver->bytes;
    if (here.driver->first_pa != region.first_pa || end_pa != region.end_pa) {
        refuse_damaged(fmt::format("the area is of a region at {:#x}-{:#x}, and the kernel driver "
                                   "says {:#x}-{:#x}",
                                   region.first_pa, region.end_pa - 1, here.driver->first_pa,
                                   end_pa - 1));
    }
}

void check_records(const picture& records) {
    if (!records.damage.empty())
        refuse_damaged(records.damage.front());
    for (const auto& chunk : records.chunks) {
        if (chunk.pa < records.region.first_pa || chunk.end_pa() > records.region.end_pa) {
            refuse_damaged(fmt::format("chunk '{}' ({}) does not lie in the region",
                                       shown(chunk.name), pa_range(chunk)));
        }
        const bool dangling =
            std::any_of(chunk.devices.begin(), chunk.devices.end(),
                        [](int index) { return index < 0 || index >= device_capacity; });
        if (dangling) {
            refuse_damaged(fmt::format("chunk '{}' refers to a device record that does not exist",
                                       shown(chunk.name)));
        }
    }
}

picture sound_picture(const site& here, std::chrono::milliseconds timeout) {
    picture records = read_picture({{}, timeout});
    check_records(records);
    check_region(here, records.region);
    return records;
}

exit_status start_library() {
    uint32_t start_dma = 0;
    uint32_t end_dma = 0;
    if (tarvo_get_limits(&start_dma, &end_dma) != 0) {
        throw failure{exit_status::unreadable, "the library cannot start; its reason is above, and "
                                               "'tarvoctl doctor' tells more"};
    }
    return exit_status::good;
}

} // namespace

picture ready_area(std::chrono::milliseconds timeout) {
    const site here = find_site();
    picture records = sound_picture(here, timeout);
    check_files(here, missing_file::refused);
    return records;
}

picture ready_or_new_area(std::chrono::milliseconds timeout) {
    const site here = find_site();
    check_files(here, missing_file::accepted);
    if (!open_built_area(here.area))
        in_library(timeout, start_library);
    return sound_picture(here, timeout);
}

} // namespace tarvoctl
