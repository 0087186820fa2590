#include "own_memory.hpp"

#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "driver_files.hpp"
#include "region.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <fmt/format.h>
#include <unistd.h>

namespace driver_check {

namespace {

uint64_t last_pages_of(const region_line& region) {
    const uint64_t bytes = own_memory::page_count * page_size();
    if (region.last_pa + 1 - region.first_pa < bytes) {
        throw not_applicable{fmt::format("the region has less than {}", size_text(bytes))};
    }
    return region.last_pa + 1 - bytes;
}

std::optional<allocation> listed(const std::string& name, uint64_t bytes) {
    try {
        return find_allocation(allocations_in(read_listing()), name, bytes);
    } catch (const breach&) {
        return std::nullopt; // of the clause about listing lines alone
    }
}

uint64_t allocate(const std::string& name, uint64_t bytes) {
    const std::string line = allocate_line(name, bytes);
    const answer given = send(paths::region_driver, line);
    const auto found = listed(name, bytes);
    if (!is_accepted(given, line) || !found) {
        send_unasked(paths::region_driver, release_line(name, bytes));
        throw not_applicable{"there is no memory to use; see 3.1 and 3.6"};
    }
    return found->pa;
}

} // namespace

std::string own_name(const std::string& ending) {
    return fmt::format("driver_check_{}_{}", ::getpid(), ending);
}

own_memory::own_memory(const subject& all) : _region{*all.region} {
    if (all.is_cma()) {
        _name = own_name("memory");
        _pa = allocate(_name, page_count * page_size());
    } else {
        _pa = last_pages_of(_region);
    }
}

own_memory::~own_memory() {
    if (!_name.empty()) {
        send_unasked(paths::region_driver, release_line(_name, page_count * page_size()));
    }
}

uint64_t own_memory::page_pa(uint64_t number) const {
    return _pa + number * page_size();
}

requested_range own_memory::chunk(uint64_t first_page, uint64_t pages) const {
    return range_of_chunk(_region, page_pa(first_page), pages * page_size());
}

requested_range own_memory::exact(uint64_t first_page, uint64_t pages) const {
    return range_to_the_end(_region, page_pa(first_page), pages * page_size());
}

namespace {

/// A driver that does not find a device which the kernel has not either is right.
void require_existence(const tarvo::device& device, const answer& given) {
    const std::string place = std::string{"/sys/bus/pci/devices/"} + device.text().c_str();
    if ((given.error == ENODEV || given.error == EUNATCH) && ::access(place.c_str(), F_OK) != 0) {
        throw failure{exit_status::unreadable,
                      fmt::format("--device {}: {}: the machine has no such device; see 'ls "
                                  "/sys/bus/pci/devices'",
                                  device.text().c_str(), error_name(given.error))};
    }
}

} // namespace

void require_accepted(const std::string& line) {
    const answer given = send(paths::iommu_driver, line);
    require(is_accepted(given, line), answer_text(line, given) + "; it must be accepted");
}

device_mapping::device_mapping(const tarvo::device& device, const requested_range& range,
                               unsigned prot)
    : _device{device}, _range{range} {
    const std::string line = request_line_of("map", device, range, prot);
    const answer given = send(paths::iommu_driver, line);
    if (given.error == ENOSYS) {
        throw not_applicable{"the machine has no IOMMU for the device"};
    }
    require_existence(device, given);
    if (given.error == EBUSY) {
        // Nothing is wrong with the driver, and nothing can be found out with this device.
        throw failure{
            exit_status::unreadable,
            fmt::format("--device {0}: EBUSY: another driver has it; unbind that, by echo "
                        "{0} >/sys/bus/pci/devices/{0}/driver/unbind",
                        device.text().c_str())};
    }
    if (!is_accepted(given, line)) {
        send_unasked(paths::iommu_driver, request_line_of("unmap", device, range));
        throw breach{answer_text(line, given) + "; it must be accepted"};
    }
}

void device_mapping::undo(unsigned prot) {
    _stands = false;
    require_accepted(request_line_of("unmap", _device, _range, prot));
}

device_mapping::~device_mapping() {
    if (_stands) {
        send_unasked(paths::iommu_driver, request_line_of("unmap", _device, _range));
    }
}

} // namespace driver_check
