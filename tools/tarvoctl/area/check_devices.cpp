#include "check_parts.hpp"
#include "records.hpp"

#include <array>
#include <fmt/format.h>
#include <map>
#include <string>
#include <tuple>

namespace tarvoctl {

namespace {

/// Both records have their flag first and then the bytes that bring the next field to its boundary.
constexpr size_t padding_offset = list_links::flag_offset + 1;
constexpr size_t padding_bytes = 3;
static_assert(offsetof(iommu_dev_ref, dev) == padding_offset + padding_bytes);
static_assert(offsetof(iommu_dev_t, domain) == padding_offset + padding_bytes);

bool is_padded_with_zeros(std::span<const uint8_t> element) {
    return is_zero(element.subspan(padding_offset, padding_bytes));
}

void check_device(const iommu_dev_t& device, int element, report& found) {
    const place where{area_list::devices, element};
    if (device.online > 1) {
        found.add(rules::online_value, where, device.online);
    }
    constexpr size_t end_of_online = offsetof(iommu_dev_t, online) + 1;
    if (!is_padded_with_zeros(raw(device)) || !is_zero(raw(device).subspan(end_of_online))) {
        found.add(rules::padding_not_zero, where, "the bytes between the fields are");
    }
}

/// As findings name it: "device 1 (0000:03:00.0)".
std::string name_of(const shared_area_t& area, int device) {
    return fmt::format("device {} ({})", device,
                       device_text(record_of(device, area.devices._arr[device])));
}

/// By number; empty for those that are not registered.
using device_names = std::array<std::string, device_capacity>;

device_names names_of(const shared_area_t& area, const list_members& devices) {
    device_names names;
    for (const int device : devices.listed) {
        names[static_cast<size_t>(device)] = name_of(area, device);
    }
    return names;
}

/// One chunk's list of devices.
class reference_check {
  public:
    reference_check(const shared_area_t& area, const device_names& registered, int chunk,
                    report& found)
        : _area(area), _registered(registered), _chunk(chunk), _found(found) {}

    void check() {
        for (const int ref : check_list(ref_links(_area, _chunk), _found).listed) {
            check_ref(ref);
        }
        check_missing();
    }

  private:
    void check_ref(int ref) {
        const place where{area_list::refs, _chunk, ref};
        const iommu_dev_ref& record = _area.chunks._arr[_chunk].devs._arr[ref];
        if (!is_padded_with_zeros(raw(record))) {
            _found.add(rules::padding_not_zero, where, "the bytes after the flag are");
        }
        if (record.dev < 0 || record.dev >= device_capacity) {
            _found.add(rules::device_out_of_range, where, record.dev, device_capacity - 1);
            return;
        }
        check_device_named(where, static_cast<size_t>(record.dev));
    }

    void check_device_named(place where, size_t device) {
        if (_referred[device]) {
            _found.add(rules::device_twice, where, name_or_number(device));
        }
        _referred[device] = true;
        if (_registered[device].empty()) {
            _found.add(rules::device_not_registered, where, device);
        }
    }

    std::string name_or_number(size_t device) const {
        const std::string& name = _registered[device];
        return name.empty() ? fmt::format("device {}", device) : name;
    }

    void check_missing() {
        for (size_t device = 0; device < _registered.size(); ++device) {
            if (!_registered[device].empty() && !_referred[device] &&
                _area.devices._arr[device].online != 0) {
                _found.add(rules::misses_device, {area_list::chunks, _chunk}, _registered[device]);
            }
        }
    }

    const shared_area_t& _area;
    const device_names& _registered;
    int _chunk;
    report& _found;
    std::array<bool, device_capacity> _referred{};
};

} // namespace

void check_devices(const shared_area_t& area, const list_members& devices, report& found) {
    std::map<std::tuple<int32_t, int32_t, int32_t>, int> known;
    for (const int element : devices.listed) {
        const iommu_dev_t& device = area.devices._arr[element];
        check_device(device, element, found);
        const auto [same, is_new] = known.try_emplace(
            std::tuple(int32_t{device.domain}, int32_t{device.bus}, int32_t{device.devfn}),
            element);
        if (!is_new) {
            found.add(rules::address_twice, {area_list::devices, element},
                      name_of(area, same->second));
        }
    }
}

void check_refs(const shared_area_t& area, const list_members& chunks, const list_members& devices,
                report& found) {
    const device_names registered = names_of(area, devices);
    for (const int chunk : chunks.listed) {
        if (!is_at_an_end(area, chunk)) {
            reference_check(area, registered, chunk, found).check();
        }
    }
}

} // namespace tarvoctl
