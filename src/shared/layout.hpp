#pragma once

#include "ArrayBackedList.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>

// The shared area, byte for byte. Processes of every build and word size map one file of this
// layout at the same time and it carries no version, so NOTHING HERE MAY EVER CHANGE: no field, no
// order, no size. Records only; what is done with them is decided elsewhere.
//
// Integers are little-endian. A 64-bit field lies on a 4-byte boundary, as 32-bit x86 has it, which
// the packing below forces on every other machine: no pointer or reference to one may be formed.
// Flags are bytes, not bool: the file may hold any value, and reading one must stay defined.

static_assert(std::endian::native == std::endian::little, "the shared area is little-endian");

inline constexpr int chunk_capacity = 16384;
inline constexpr int device_capacity = 256;
inline constexpr size_t name_bytes = 50;     ///< a chunk's name, terminator included
inline constexpr size_t creator_bytes = 100; ///< a chunk's creator, terminator included

#pragma pack(push, 4)

/// Says that the chunk whose `devs` holds it is mapped for one device.
struct iommu_dev_ref {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    int32_t dev; ///< element number in the shared area's `devices`
};

/// A registered PCI device.
struct iommu_dev_t {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    int32_t domain;
    int32_t bus;
    int32_t devfn;  ///< slot * 8 + function
    uint8_t online; ///< 1 while the device takes IOMMU requests
};

/// A named piece of the region, or one of the two sentinels that bound it.
struct dma_chunk_t {
    int32_t next;
    int32_t prev;
    uint8_t allocated;
    char name[name_bytes];
    uint64_t pa;   ///< physical address of the first byte
    uint32_t size; ///< bytes; 0 for the sentinels
    char creator[creator_bytes];
    ArrayBackedList<iommu_dev_ref, device_capacity> devs; ///< the devices it is mapped for
};

using chunk_list = ArrayBackedList<dma_chunk_t, chunk_capacity>;
using device_list = ArrayBackedList<iommu_dev_t, device_capacity>;

/// The whole file but for the zeros that fill its last page.
struct shared_area_t {
    uint8_t initialized; ///< 0 until one process has built both lists and the sentinels
    chunk_list chunks;
    device_list devices;
};

#pragma pack(pop)

static_assert(sizeof(iommu_dev_ref) == 16);
static_assert(offsetof(iommu_dev_ref, next) == 0);
static_assert(offsetof(iommu_dev_ref, prev) == 4);
static_assert(offsetof(iommu_dev_ref, allocated) == 8);
static_assert(offsetof(iommu_dev_ref, dev) == 12);

static_assert(sizeof(iommu_dev_t) == 28);
static_assert(offsetof(iommu_dev_t, next) == 0);
static_assert(offsetof(iommu_dev_t, prev) == 4);
static_assert(offsetof(iommu_dev_t, allocated) == 8);
static_assert(offsetof(iommu_dev_t, domain) == 12);
static_assert(offsetof(iommu_dev_t, bus) == 16);
static_assert(offsetof(iommu_dev_t, devfn) == 20);
static_assert(offsetof(iommu_dev_t, online) == 24);

static_assert(sizeof(dma_chunk_t) == 4280);
static_assert(offsetof(dma_chunk_t, next) == 0);
static_assert(offsetof(dma_chunk_t, prev) == 4);
static_assert(offsetof(dma_chunk_t, allocated) == 8);
static_assert(offsetof(dma_chunk_t, name) == 9);
static_assert(offsetof(dma_chunk_t, pa) == 60);
static_assert(offsetof(dma_chunk_t, size) == 68);
static_assert(offsetof(dma_chunk_t, creator) == 72);
static_assert(offsetof(dma_chunk_t, devs) == 172);
static_assert(offsetof(dma_chunk_t, devs._head) == 4268);
static_assert(offsetof(dma_chunk_t, devs._tail) == 4272);
static_assert(offsetof(dma_chunk_t, devs._free) == 4276);

static_assert(sizeof(shared_area_t) == 70130716);
static_assert(alignof(shared_area_t) == 4);
static_assert(offsetof(shared_area_t, initialized) == 0);
static_assert(offsetof(shared_area_t, chunks) == 4);
static_assert(offsetof(shared_area_t, chunks._head) == 70123524);
static_assert(offsetof(shared_area_t, chunks._tail) == 70123528);
static_assert(offsetof(shared_area_t, chunks._free) == 70123532);
static_assert(offsetof(shared_area_t, devices) == 70123536);
static_assert(offsetof(shared_area_t, devices._head) == 70130704);
static_assert(offsetof(shared_area_t, devices._tail) == 70130708);
static_assert(offsetof(shared_area_t, devices._free) == 70130712);
static_assert(std::is_trivial_v<shared_area_t> && std::is_standard_layout_v<shared_area_t>);
