#include "live_records.hpp"

#include "check_record.hpp"
#include "list_walk.hpp"

#include <cstring>

namespace tarvoctl {

namespace {

std::string text_in(const char* field, std::size_t room) {
    return {field, strnlen(field, room)};
}

template <typename Number>
Number number_in(const unsigned char* at) {
    Number number;
    std::memcpy(&number, at, sizeof number);
    return number;
}

} // namespace

live_records::live_records() {
    chunks_.reserve(chunk_capacity);
    devices_.reserve(device_capacity);
    refs_.reserve(chunk_capacity);
}

void live_records::copy(const shared_area_t& area) {
    const chunk_list& chunks = area.chunks;
    copy_region(chunks);
    if (const auto why = walk_list(chunks, [&](int index, const dma_chunk_t& chunk) {
            // The sentinels only say where the region lies.
            if (index != chunks._head && index != chunks._tail)
                copy_chunk(index, chunk);
        })) {
        damage_.push_back("the list of chunks is damaged: " + *why);
        all_chunks_ = false;
    }
    if (const auto why = walk_list(area.devices, [this](int index, const iommu_dev_t& device) {
            devices_.push_back({index, device});
        })) {
        damage_.push_back("the list of devices is damaged: " + *why);
    }
}

void live_records::copy_region(const chunk_list& chunks) {
    if (const auto region = region_in(chunks)) {
        region_ = *region;
    } else {
        damage_.emplace_back(
            "the two records that bound the region are damaged: it is not known where it lies");
    }
}

void live_records::copy_chunk(int index, const dma_chunk_t& chunk) {
    chunk_copy copied{index, {}, refs_.size()};
    std::memcpy(copied.head, &chunk, head_bytes);
    chunks_.push_back(copied);
    if (const auto why = walk_list(
            chunk.devs, [this](int, const iommu_dev_ref& ref) { refs_.push_back(ref.dev); })) {
        damage_.push_back("the list of devices of chunk " + std::to_string(index) +
                          " is damaged: " + *why);
    }
}

chunk_record live_records::record_of(std::size_t position) const {
    const chunk_copy& copied = chunks_[position];
    const std::size_t end =
        position + 1 < chunks_.size() ? chunks_[position + 1].first_ref : refs_.size();
    chunk_record record;
    record.index = copied.index;
    record.name = text_in(reinterpret_cast<const char*>(copied.head) + offsetof(dma_chunk_t, name),
                          name_bytes);
    record.pa = number_in<uint64_t>(copied.head + offsetof(dma_chunk_t, pa));
    record.size = number_in<uint32_t>(copied.head + offsetof(dma_chunk_t, size));
    record.creator = text_in(
        reinterpret_cast<const char*>(copied.head) + offsetof(dma_chunk_t, creator), creator_bytes);
    record.devices.assign(refs_.begin() + static_cast<std::ptrdiff_t>(copied.first_ref),
                          refs_.begin() + static_cast<std::ptrdiff_t>(end));
    return record;
}

picture live_records::to_picture() const {
    picture made{};
    made.region = region_;
    made.chunks.reserve(chunks_.size());
    for (std::size_t position = 0; position < chunks_.size(); ++position)
        made.chunks.push_back(record_of(position));
    for (const auto& [index, device] : devices_) {
        made.devices.push_back({index, static_cast<uint32_t>(device.domain),
                                static_cast<uint32_t>(device.bus),
                                static_cast<uint32_t>(device.devfn), device.online != 0});
    }
    made.damage = damage_;
    made.all_chunks = all_chunks_;
    return made;
}

} // namespace tarvoctl
