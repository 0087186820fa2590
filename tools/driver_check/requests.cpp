#include "clause.hpp"
#include "common/failure.hpp"
#include "driver_files.hpp"
#include "lines.hpp"
#include "region.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <fmt/format.h>
#include <string>
#include <vector>

namespace driver_check {

namespace {

/// The device that is named where none may be used: nothing is asked for it that can be done.
const tarvo::device& named_device(const subject& all) {
    static const tarvo::device last_of_its_bus = *tarvo::device::at(0, 0xff, 0x1f, 7);
    return all.device ? *all.device : last_of_its_bus;
}

void check_requests_open(const subject& /*all*/) {
    open_for_requests(paths::iommu_driver);
}

void check_two_openings(const subject& /*all*/) {
    const unique_fd one = open_for_requests(paths::iommu_driver);
    const unique_fd other = open_for_requests(paths::iommu_driver);
}

/// The errors that say something else to the library than that a request was refused.
bool has_meaning(int error) {
    return error == ENOSYS || error == ENODEV || error == EUNATCH;
}

void require_invalid(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        const answer given = send_unacceptable(line);
        require(given.error != 0 && !has_meaning(given.error),
                answer_text(line, given) +
                    "; it must be refused, and not by ENOSYS, ENODEV or EUNATCH");
    }
}

void check_malformed_lines(const subject& all) {
    const tarvo::device device = named_device(all);
    const std::string numbers =
        fmt::format(" {} {} {} ", device.domain(), device.bus(), device.devfn());
    const std::string map = "map" + numbers;
    require_invalid({"\n", "map\n", map + "\n", "remap" + numbers + "4096 8190 4096 3\n",
                     "MAP" + numbers + "4096 8190 4096 3\n", map + "4096 8190 4096\n",
                     map + "4096 8190 4096 3 3\n", map + "0x1000 0x1ffe 0x1000 3\n",
                     map + "-4096 8190 4096 3\n", map + "4096 8190 4294967296 3\n",
                     map + "18446744073709551616 18446744073709555710 4096 3\n",
                     map + "4096 8190 4096 all\n", "map x y z 4096 8190 4096 3\n",
                     std::string("map \0 4096 8190 4096 3\n", 23), "\xff\xfe\xfd\n"});
}

void check_long_line(const subject& /*all*/) {
    require_invalid({std::string(longest_garbage_bytes, '1') + "\n",
                     "map 0 0 0 " + std::string(longest_garbage_bytes, '0') + "\n"});
}

/// A device that may not be there can be answered that it is gone.
void require_refused(const subject& all, const requested_range& range) {
    for (const char* const op : {"map", "unmap"}) {
        const std::string line = request_line_of(op, named_device(all), range);
        const answer given = send_unacceptable(line);
        const bool gone = given.error == ENODEV || given.error == EUNATCH;
        require(given.error != 0 && !(gone && all.device),
                answer_text(line, given) + "; it must be refused, and not by ENODEV or EUNATCH");
    }
}

void check_impossible_ranges(const subject& all) {
    const region_line& region = *all.region;
    const dma_window window = window_of(region);
    const uint64_t page = page_size();
    const uint32_t first_dma = window.dma_of(region.first_pa);
    const requested_range impossible[] = {
        {region.first_pa + page, region.first_pa, first_dma},
        {region.first_pa - page, region.first_pa + page - 1, first_dma},
        {region.last_pa + 1, region.last_pa + page, first_dma},
        {region.first_pa, region.last_pa + page, first_dma},
        {region.first_pa, region.first_pa + 2 * page - 1, static_cast<uint32_t>(0 - page)},
    };
    for (const requested_range& range : impossible) {
        require_refused(all, range);
    }
}

void check_close(const subject& /*all*/) {
    const std::string line = "nonsense\n";
    const answer given = send(paths::iommu_driver, line);
    require(given.close_error == 0,
            fmt::format("after \"nonsense\" the close failed with {}; it must succeed",
                        error_name(given.close_error)));
}

} // namespace

std::span<const clause> request_clauses() {
    static constexpr clause clauses[] = {
        {"4.1", "The request file opens for writing", need::nothing, check_requests_open},
        {"4.2", "It can be open twice at once", need::nothing, check_two_openings},
        {"4.3", "A malformed line is refused", need::nothing, check_malformed_lines},
        {"4.4", "A line of any length is refused alike", need::nothing, check_long_line},
        {"4.5", "An impossible range is refused", need::region, check_impossible_ranges},
        {"4.6", "A close succeeds after a refusal", need::nothing, check_close},
    };
    return clauses;
}

} // namespace driver_check
