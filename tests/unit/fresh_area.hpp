#pragma once

#include "area.hpp"
#include "shared/layout.hpp"

#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

/// An area in ordinary memory, as the record and as bytes. It begins as zeros.
class fresh_area {
  public:
    shared_area_t& record() { return *_record; }
    std::span<uint8_t> bytes() {
        return {reinterpret_cast<uint8_t*>(_record.get()), sizeof(shared_area_t)};
    }
    area_view view() { return area_view(bytes()); }
    area_writer writer() { return area_writer(bytes()); }

    /// Builds both lists and the sentinels of a region of that place and size.
    void build(uint64_t region_first_pa, uint32_t region_bytes) {
        record().chunks.init();
        record().devices.init();
        dma_chunk_t& head = append("__HEAD");
        head.pa = region_first_pa;
        append("__TAIL").pa = region_first_pa + region_bytes;
        record().initialized = 1;
    }

    /// Adds a chunk after the element `left`; returns its element number.
    int add_chunk(int left, const char* name, uint64_t pa, uint32_t size) {
        chunk_list& chunks = record().chunks;
        dma_chunk_t* chunk = chunks.alloc();
        chunks.insert_after(chunks.arr_elem(left), chunk);
        set_text(chunk->name, name);
        set_text(chunk->creator, "unit test");
        chunk->pa = pa;
        chunk->size = size;
        chunk->devs.init();
        return chunks.index(chunk);
    }

    int add_device(int32_t domain, int32_t bus, int32_t devfn) {
        iommu_dev_t* device = record().devices.alloc();
        record().devices.append(device);
        device->domain = domain;
        device->bus = bus;
        device->devfn = devfn;
        device->online = 1;
        return record().devices.index(device);
    }

    int add_ref(int chunk, int device) {
        auto& devs = record().chunks.arr_elem(chunk)->devs;
        iommu_dev_ref* ref = devs.alloc();
        devs.append(ref);
        ref->dev = device;
        return devs.index(ref);
    }

  private:
    static void set_text(char* field, const char* text) {
        std::memcpy(field, text, std::strlen(text) + 1);
    }

    dma_chunk_t& append(const char* name) {
        dma_chunk_t* sentinel = record().chunks.alloc();
        record().chunks.append(sentinel);
        set_text(sentinel->name, name);
        return *sentinel;
    }

    std::unique_ptr<shared_area_t> _record = std::make_unique<shared_area_t>();
};
