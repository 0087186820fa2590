#include "iommu_machine.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

/// What came after the first `reported`, which is then all of them.
std::vector<std::string> fresh(std::vector<std::string> all, size_t& reported) {
    const size_t known = std::exchange(reported, all.size());
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(known));
    return all;
}

} // namespace

int iommu_machine::register_device(const pci_device& device) {
    return user.register_device(device.domain, device.bus, device.devfn);
}

int iommu_machine::unregister_device(const pci_device& device) {
    return user.unregister_device(device.domain, device.bus, device.devfn);
}

void iommu_machine::set_online(int device, bool online) const {
    box.writable_area().writer().u8(area_offset::device(device) + area_offset::online,
                                    online ? 1 : 0);
}

std::vector<std::string> iommu_machine::new_lines() {
    return fresh(box.request_lines(), _lines_reported);
}

std::vector<std::string> iommu_machine::new_events() {
    const std::vector<std::string> all = box.driver_log();
    std::vector<std::string> mine;
    std::copy_if(all.begin(), all.end(), std::back_inserter(mine),
                 [](const std::string& event) { return event.starts_with("sysfs "); });
    return fresh(std::move(mine), _events_reported);
}

std::vector<int> iommu_machine::devices_of(int chunk) const {
    std::vector<int> devices;
    for (const area_ref& ref : box.area().view().refs(chunk)) {
        devices.push_back(ref.dev);
    }
    return devices;
}

std::vector<int> iommu_machine::online() const {
    std::vector<int> flags;
    for (const area_device& device : box.area().view().devices()) {
        flags.push_back(device.online);
    }
    return flags;
}
