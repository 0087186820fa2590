#include "clause.hpp"
#include "driver_files.hpp"
#include "lines.hpp"
#include "own_memory.hpp"
#include "region.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <string>

namespace driver_check {

namespace {

void check_absent_device(const subject& all) {
    const requested_range last_page =
        range_of_chunk(*all.region, all.region->last_pa + 1 - page_size(), page_size());
    for (const char* const op : {"map", "unmap"}) {
        const std::string line = request_line_of(op, *all.absent_device, last_page);
        const answer given = send_unacceptable(line);
        require(given.error == ENODEV || given.error == EUNATCH || given.error == ENOSYS,
                answer_text(line, given) + "; a device that does not exist is ENODEV or EUNATCH");
    }
}

void check_missing_iommu(const subject& all) {
    const own_memory memory{all};
    const std::string map = request_line_of("map", *all.device, memory.chunk(0, 1));
    const std::string unmap = request_line_of("unmap", *all.device, memory.chunk(0, 1));
    const answer first = send(paths::iommu_driver, map);
    if (first.error != ENOSYS) {
        send_unasked(paths::iommu_driver, unmap);
        throw not_applicable{"the device has an IOMMU, or its request was refused"};
    }
    for (const std::string& line : {unmap, map}) {
        const answer given = send(paths::iommu_driver, line);
        require(given.error == ENOSYS,
                answer_text(line, given) + "; the request before it was answered by ENOSYS");
    }
}

} // namespace

std::span<const clause> answer_clauses() {
    static constexpr clause clauses[] = {
        {"6.1", "A device that does not exist is ENODEV or EUNATCH", need::absent_device,
         check_absent_device},
        {"6.2", "Without an IOMMU every request is ENOSYS", need::device, check_missing_iommu},
    };
    return clauses;
}

} // namespace driver_check
