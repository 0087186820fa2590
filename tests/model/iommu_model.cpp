// The library model: requests to the IOMMU, the devices, and which chunk is mapped for which.

#include "library_model.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

namespace model {

namespace {

constexpr uint32_t read_and_write = 3;
/// Forgetting a reference first asks for the one after it.
constexpr const char* in_mapping_constructor =
    "tarvo:62: iommu_mapping_t::iommu_mapping_t(int64_t, int64_t, int32_t, int32_t)";
constexpr const char* in_iommu_map = "tarvo:982: int tarvo_iommu_map(uint, uint, uint, uint)";
constexpr const char* in_iommu_unmap = "tarvo:995: int tarvo_iommu_unmap(uint, uint, uint)";

auto triple(const device& one) {
    return std::tuple(one.domain, one.bus, one.devfn);
}

} // namespace

/// What asprintf makes of a text.
std::string library::formatted(const std::string& printed) {
    const int error = refused("asprintf");
    if (error != 0) {
        _errno = error;
    }
    return error != 0 ? "Error formatting string" : printed;
}

std::string library::device_name(const device& one) {
    return formatted(text_of("%04x:%02x:%02x.%x", one.domain, one.bus, (one.devfn >> 3U) & 0x1fU,
                             one.devfn & 7U));
}

request library::request_for(const char* op, const device& to, const iommu_mapping& range) {
    return {op, triple(to), range.start_pa, "", 0, range.end_pa - 1, range.start_dma};
}

/// The range of a request; both lengths must agree, as the constructor computes them.
library::iommu_mapping library::checked_mapping(uint64_t start_pa, uint64_t end_pa,
                                                uint32_t start_dma, uint32_t end_dma) {
    const auto dma_bytes = static_cast<int32_t>(end_dma - start_dma);
    const auto pa_bytes = static_cast<int64_t>(end_pa - start_pa);
    require(dma_bytes == pa_bytes, in_mapping_constructor,
            "end_dma - start_dma == end_pa - start_pa");
    return {start_pa, end_pa, start_dma};
}

int library::iommu_act(const char* op, const device& to, uint32_t prot,
                       const iommu_mapping& range) {
    if (const int error = open_driver_to_write("sysfs"); error != 0) {
        _errno = error;
        perror("tarvo: failed to open sysfs file", error);
        return -1;
    }
    const int result = send_unbuffered(op, to, prot, range);
    const request asked = request_for(op, to, range);
    int error = _machine.kernel.close("sysfs", &asked);
    if (const int refusal = refused("fclose"); refusal != 0) {
        error = refusal;
    }
    if (error != 0) {
        _errno = error;
        perror("tarvo: fclose failed", error);
    }
    return result;
}

int library::send_unbuffered(const char* op, const device& to, uint32_t prot,
                             const iommu_mapping& range) {
    const int positive = refused("positive_setvbuf");
    const int error = positive != 0 ? positive : refused("setvbuf");
    if (error == 0) {
        return write_request(op, to, prot, range);
    }
    _errno = error;
    perror("tarvo: failed to set _IONBF", error);
    return positive != 0 ? 0 : -1;
}

int library::write_request(const char* op, const device& to, uint32_t prot,
                           const iommu_mapping& range) {
    const auto domain = static_cast<int>(to.domain);
    const auto bus = static_cast<int>(to.bus);
    const auto devfn = static_cast<int>(to.devfn);
    const auto signed_prot = static_cast<int>(prot);
    const request asked = request_for(op, to, range);
    int error = refused("fprintf");
    if (error == 0) {
        error = _machine.kernel.write("sysfs", asked,
                                      text_of("%s %d %d %d %llu %llu %u %d\n", op, domain, bus,
                                              devfn, wide(range.start_pa), wide(range.end_pa - 1),
                                              range.start_dma, signed_prot));
    }
    if (error == 0) {
        return 0;
    }
    _errno = error;
    if (error == ENOSYS) {
        return 0;
    }
    say(text_of("tarvo: failed to iommu %s domain %d bus %d devfn %d startpa 0x%llx endpa 0x%llx "
                "startdma 0x%x prot %d errno %d\n",
                op, domain, bus, devfn, wide(range.start_pa), wide(range.end_pa - 1),
                range.start_dma, signed_prot, error));
    return -1;
}

int library::map_unmap_chunk(const char* op, const chunk& one, const device& to) {
    const uint64_t end = one.pa + one.size - 1;
    const uint32_t end_dma = pa_to_dma(end);
    const uint32_t start_dma = pa_to_dma(one.pa);
    const iommu_mapping range = checked_mapping(one.pa, end, start_dma, end_dma);
    const int result = iommu_act(op, to, read_and_write, range);
    if (result != 0) {
        const std::string name = device_name(to);
        const std::string where = formatted(text_of("DMA(0x%x - 0x%x) -> PA(0x%llx - 0x%llx)",
                                                    start_dma, end_dma, wide(one.pa), wide(end)));
        say(text_of("map_unmap_chunk: %s on dev %s failed: %d, %s\n", op, name.c_str(), result,
                    where.c_str()));
    }
    return result;
}

bool library::is_gone() const {
    return _errno == ENODEV || _errno == EUNATCH;
}

void library::add_dev_to_chunk(chunk& one, int dev) {
    ref_list& devs = one.devs.value();
    if (std::ranges::find(devs.on_list, dev, &reference::dev) == devs.on_list.end()) {
        devs.on_list.push_back({devs.free.front(), dev});
        devs.free.pop_front();
    }
}

void library::remove_ref(chunk& one, size_t position) {
    ref_list& devs = one.devs.value();
    const auto doomed = devs.on_list.begin() + static_cast<std::ptrdiff_t>(position);
    devs.free.push_front(doomed->element);
    devs.on_list.erase(doomed);
}

/// False for a refusal that counts.
bool library::map_for(chunk& one, device& to) {
    if (map_unmap_chunk("map", one, to) == 0) {
        add_dev_to_chunk(one, to.element);
    } else if (is_gone()) {
        to.online = false;
    } else {
        say(text_of("Error IOMMU mapping chunk %s\n", std::strerror(_errno)));
        return false;
    }
    return true;
}

int library::map_chunk_all_devs(chunk& one) {
    for (device& to : _area.devices) {
        if (to.online && !map_for(one, to)) {
            unmap_chunk_all_devs(one);
            return -1;
        }
    }
    return 0;
}

/// One request of unmap_chunk_all_devs(). False for a refusal that counts.
bool library::unmap_from(const chunk& one, int dev) {
    device* const from = _area.device_at(dev);
    // The bytes of an element that is not on the list say offline.
    if (from == nullptr || !from->online || map_unmap_chunk("unmap", one, *from) == 0) {
        return true;
    }
    if (is_gone()) {
        from->online = false;
        return true;
    }
    say(text_of("Error IOMMU unmapping chunk %s\n", std::strerror(_errno)));
    return false;
}

int library::unmap_chunk_all_devs(chunk& one) {
    if (!one.devs) {
        // All zero bytes say that element 0 is the first, of the device in slot 0, and not in use.
        unmap_from(one, 0);
        require(false, in_next, "cur->allocated");
    }
    int result = 0;
    while (!one.devs.value().on_list.empty()) {
        if (!unmap_from(one, one.devs.value().on_list.front().dev)) {
            result = -1;
        }
        remove_ref(one, 0);
    }
    return result;
}

int library::map_chunks_to_dev(device& to) {
    for (size_t i = 1; i + 1 < _area.chunks.size(); i++) {
        if (!map_for(_area.chunks[i], to)) {
            unmap_dev_all_chunks(to);
            return -1;
        }
    }
    return 0;
}

int library::unmap_dev_all_chunks(device& from) {
    int result = 0;
    for (size_t i = 1; i + 1 < _area.chunks.size(); i++) {
        chunk& one = _area.chunks[i];
        const std::vector<reference>& refs = one.devs.value().on_list;
        const auto ref = std::ranges::find(refs, from.element, &reference::dev);
        if (ref == refs.end() || !from.online) {
            continue;
        }
        if (map_unmap_chunk("unmap", one, from) == 0) {
            remove_ref(one, static_cast<size_t>(ref - refs.begin()));
        } else if (is_gone()) {
            from.online = false;
        } else {
            result = -1;
        }
    }
    return result;
}

device* library::find_device(const device& wanted) {
    const auto found = std::ranges::find(_area.devices, triple(wanted), triple);
    return found == _area.devices.end() ? nullptr : &*found;
}

int library::register_device(const device& wanted) {
    if (!init_or_say() || !lock()) {
        return -1;
    }
    device* known = find_device(wanted);
    if (known == nullptr) {
        if (_area.free_devices.empty()) {
            fault();
        }
        _area.devices.push_back(wanted);
        known = &_area.devices.back();
        known->element = _area.free_devices.front();
        _area.free_devices.pop_front();
    }
    known->online = true;
    const int result = map_chunks_to_dev(*known);
    if (result != 0) {
        say("tarvo: tarvo_register_device: failed to map chunk\n");
    }
    unlock();
    return result;
}

int library::unregister_device(const device& wanted) {
    if (!init_or_say() || !lock()) {
        return -1;
    }
    device* const known = find_device(wanted);
    int result = 0;
    if (known == nullptr) {
        say("tarvo: Device not registered\n");
        result = -2;
    } else if (unmap_dev_all_chunks(*known) != 0) {
        say("tarvo: Error unmapping all chunks\n");
        result = -1;
    } else {
        _area.give_back_device(known->element);
    }
    unlock();
    return result;
}

/// `place`: of the assertion that the library starts.
library::iommu_mapping library::whole_region_range(const char* place) {
    const auto limits = get_limits();
    require(limits.has_value(), place, "tarvo_get_limits(&start_dma, &end_dma) == 0");
    const auto [start_dma, end_dma] = limits.value();
    const uint64_t end_pa = dma_to_pa(end_dma);
    const uint64_t start_pa = dma_to_pa(start_dma);
    return checked_mapping(start_pa, end_pa, start_dma, end_dma);
}

int library::iommu_map(const device& one, uint32_t prot) {
    return iommu_act("map", one, prot, whole_region_range(in_iommu_map));
}

int library::iommu_unmap(const device& one) {
    const iommu_mapping range = whole_region_range(in_iommu_unmap);
    const int result = unregister_device(one);
    return result != -2 ? result : iommu_act("unmap", one, 0, range);
}

} // namespace model
