#include "iommu/registry.hpp"

#include "shared/init.hpp"
#include "shared/lock.hpp"
#include "shared/process_state.hpp"
#include "tarvo.h"

#include <cstdio>

// The PCI devices that must see every chunk, common to all processes of the machine.

namespace {

/// The registered device with that address; null when there is none.
iommu_dev_t* find_device(uint32_t domain, uint32_t bus, uint32_t devfn) {
    for (iommu_dev_t& dev : shm_base->devices) {
        if (static_cast<uint32_t>(dev.domain) == domain && static_cast<uint32_t>(dev.bus) == bus &&
            static_cast<uint32_t>(dev.devfn) == devfn) {
            return &dev;
        }
    }
    return nullptr;
}

/// Enters a device at the end of the list. A full list is not looked for: the element that is
/// not there ends the process by a memory fault, and it must stay one.
iommu_dev_t* enter_device(uint32_t domain, uint32_t bus, uint32_t devfn) {
    iommu_dev_t* dev = shm_base->devices.alloc();
    dev->domain = static_cast<int32_t>(domain);
    dev->bus = static_cast<int32_t>(bus);
    dev->devfn = static_cast<int32_t>(devfn);
    dev->online = 1;
    shm_base->devices.append(dev);
    return dev;
}

} // namespace

int tarvo_register_device(uint32_t domain, uint32_t bus, uint32_t devfn) {
    if (!library_is_ready()) {
        return -1;
    }
    const lock_guard lock;
    if (!lock.held()) {
        return -1;
    }
    iommu_dev_t* dev = find_device(domain, bus, devfn);
    if (dev == nullptr) {
        dev = enter_device(domain, bus, devfn);
    } else {
        dev->online = 1;
    }
    if (map_chunks_to_dev(dev) != 0) {
        fprintf(stderr, "tarvo: %s: failed to map chunk\n", "tarvo_register_device");
        return -1;
    }
    return 0;
}

int tarvo_unregister_device(uint32_t domain, uint32_t bus, uint32_t devfn) {
    if (!library_is_ready()) {
        return -1;
    }
    const lock_guard lock;
    if (!lock.held()) {
        return -1;
    }
    iommu_dev_t* dev = find_device(domain, bus, devfn);
    if (dev == nullptr) {
        fprintf(stderr, "tarvo: Device not registered\n");
        return not_registered;
    }
    if (unmap_dev_all_chunks(dev) == -1) {
        fprintf(stderr, "tarvo: Error unmapping all chunks\n");
        return -1;
    }
    // References that the unmapping left in place now name a free slot, and the next device to
    // take that slot inherits them.
    shm_base->devices.erase(dev);
    return 0;
}
