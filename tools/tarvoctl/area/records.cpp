#include "records.hpp"

#include "list_walk.hpp"
#include "tarvo/device.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <unordered_map>

namespace tarvoctl {

namespace {

chunk_record chunk_of(int index, const shared_area_t& area, std::vector<std::string>& damage) {
    const dma_chunk_t& chunk = area.chunks._arr[index];
    chunk_record record{index,      std::string{text_up_to_end(chunk.name)},    chunk.pa,
                        chunk.size, std::string{text_up_to_end(chunk.creator)}, {}};
    if (const auto why = walk_list(ref_links(area, index), [&](int ref) {
            record.devices.push_back(chunk.devs._arr[ref].dev);
        })) {
        damage.push_back(
            fmt::format("the list of devices of chunk {} is damaged: {}", index, *why));
    }
    return record;
}

void add_region(const chunk_list& chunks, picture& to) {
    if (const auto region = region_in(chunks)) {
        to.region = *region;
    } else {
        to.damage.emplace_back(
            "the two records that bound the region are damaged: it is unknown where it lies");
    }
}

void add_chunk(int index, const shared_area_t& area, picture& to) {
    to.chunks.push_back(chunk_of(index, area, to.damage));
    if (const auto partial = damage_to_bounds(to.chunks.back())) {
        to.damage.push_back(*partial);
        to.all_chunks = false;
    }
}

void add_chunks(const shared_area_t& area, picture& to) {
    if (const auto why = walk_list(chunk_links(area), [&](int index) {
            // The sentinels only say where the region lies.
            if (index != area.chunks._head && index != area.chunks._tail) {
                add_chunk(index, area, to);
            }
        })) {
        to.damage.push_back("the list of chunks is damaged: " + *why);
        to.all_chunks = false;
    }
}

void add_devices(const shared_area_t& area, picture& to) {
    if (const auto why = walk_list(device_links(area), [&](int index) {
            to.devices.push_back(record_of(index, area.devices._arr[index]));
        })) {
        to.damage.push_back("the list of devices is damaged: " + *why);
    }
}

} // namespace

std::optional<std::string> damage_to_bounds(const chunk_record& chunk) {
    constexpr uint64_t smallest_page_bytes = 4096;
    if (chunk.size != 0 && (chunk.size | chunk.pa) % smallest_page_bytes == 0) {
        return std::nullopt;
    }
    return fmt::format("chunk {} does not fill whole pages: {} bytes from {:#x}", chunk.index,
                       chunk.size, chunk.pa);
}

/// A damaged record may have more bits than an address.
std::string device_text(const device_record& device) {
    constexpr uint32_t devfn_bits = 0xff;
    const uint32_t devfn = device.devfn & devfn_bits;
    return tarvo::device::at(device.domain, device.bus, devfn >> 3U, devfn & 7U)->text().c_str();
}

device_record record_of(int index, const iommu_dev_t& device) {
    return {index, static_cast<uint32_t>(device.domain), static_cast<uint32_t>(device.bus),
            static_cast<uint32_t>(device.devfn), device.online != 0};
}

picture picture_of(const shared_area_t& area) {
    picture made{};
    add_region(area.chunks, made);
    add_chunks(area, made);
    add_devices(area, made);
    return made;
}

bool chunk_record::is_mapped_for(const device_record& device) const {
    return std::ranges::find(devices, device.index) != devices.end();
}

const device_record* picture::device_at(int index) const {
    const auto found = std::ranges::find(devices, index, &device_record::index);
    return found == devices.end() ? nullptr : &*found;
}

const device_record* picture::registered(const device_record& device) const {
    const auto found = std::ranges::find_if(devices, [&device](const device_record& each) {
        return each.domain == device.domain && each.bus == device.bus && each.devfn == device.devfn;
    });
    return found == devices.end() ? nullptr : &*found;
}

const chunk_record* picture::find(const std::string& name) const {
    const auto found = std::ranges::find(chunks, name, &chunk_record::name);
    return found == chunks.end() ? nullptr : &*found;
}

std::vector<bool> picture::duplicates() const {
    std::unordered_map<std::string_view, int> count_by_name;
    for (const auto& chunk : chunks) {
        ++count_by_name[chunk.name];
    }
    std::vector<bool> marks;
    marks.reserve(chunks.size());
    for (const auto& chunk : chunks) {
        marks.push_back(count_by_name[chunk.name] > 1);
    }
    return marks;
}

} // namespace tarvoctl
