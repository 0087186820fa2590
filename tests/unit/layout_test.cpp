#include "fresh_area.hpp"

#include <algorithm>
#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <ostream>
#include <vector>

// The shared area is a contract between processes of every build. It is written down a second time
// in area.cpp, as numbers, and each member is set through one of the two views and looked for
// through the other.

namespace {

using testing::Each;
using testing::IsEmpty;

TEST(layout, AChunkWrittenAsARecordIsReadByOffset) {
    fresh_area area;
    dma_chunk_t& chunk = area.record().chunks._arr[1234];
    chunk.next = 0x01020304;
    chunk.prev = -2;
    chunk.allocated = 5;
    std::memcpy(chunk.name, "rx_ring", 8);
    chunk.pa = 0x1122334455667788;
    chunk.size = 0x99aabbcc;
    std::memcpy(chunk.creator, "agent", 6);
    chunk.devs._head = 11;
    chunk.devs._tail = 12;
    chunk.devs._free = 13;

    const area_chunk read = area.view().chunk(1234);
    EXPECT_EQ(read.next, 0x01020304);
    EXPECT_EQ(read.prev, -2);
    EXPECT_EQ(read.allocated, 5);
    EXPECT_EQ(read.name, "rx_ring");
    EXPECT_EQ(read.pa, 0x1122334455667788U);
    EXPECT_EQ(read.size, 0x99aabbccU);
    EXPECT_EQ(read.creator, "agent");
    EXPECT_EQ(read.devs.head, 11);
    EXPECT_EQ(read.devs.tail, 12);
    EXPECT_EQ(read.devs.free, 13);
}

TEST(layout, AChunkWrittenByOffsetIsReadAsARecord) {
    fresh_area area;
    const area_writer write = area.writer();
    const size_t at = area_offset::chunk(1234);
    write.i32(at + area_offset::next, 0x01020304);
    write.i32(at + area_offset::prev, -2);
    write.u8(at + area_offset::allocated, 5);
    write.text(at + area_offset::name, "rx_ring");
    write.u64(at + area_offset::pa, 0x1122334455667788);
    write.u32(at + area_offset::size, 0x99aabbcc);
    write.text(at + area_offset::creator, "agent");
    write.i32(at + area_offset::devs_head, 11);
    write.i32(at + area_offset::devs_tail, 12);
    write.i32(at + area_offset::devs_free, 13);

    const dma_chunk_t& chunk = area.record().chunks._arr[1234];
    EXPECT_EQ(chunk.next, 0x01020304);
    EXPECT_EQ(chunk.prev, -2);
    EXPECT_EQ(chunk.allocated, 5);
    EXPECT_STREQ(chunk.name, "rx_ring");
    EXPECT_EQ(uint64_t{chunk.pa}, 0x1122334455667788U);
    EXPECT_EQ(chunk.size, 0x99aabbccU);
    EXPECT_STREQ(chunk.creator, "agent");
    EXPECT_EQ(chunk.devs._head, 11);
    EXPECT_EQ(chunk.devs._tail, 12);
    EXPECT_EQ(chunk.devs._free, 13);
}

TEST(layout, ADeviceWrittenAsARecordIsReadByOffset) {
    fresh_area area;
    area.record().devices._arr[200] = {.next = 1,
                                       .prev = -2,
                                       .allocated = 3,
                                       .domain = 0x10000,
                                       .bus = -1,
                                       .devfn = 0x7fffffff,
                                       .online = 4};
    const area_device read = area.view().device(200);
    EXPECT_EQ(read.next, 1);
    EXPECT_EQ(read.prev, -2);
    EXPECT_EQ(read.allocated, 3);
    EXPECT_EQ(read.domain, 0x10000);
    EXPECT_EQ(read.bus, -1);
    EXPECT_EQ(read.devfn, 0x7fffffff);
    EXPECT_EQ(read.online, 4);
}

TEST(layout, ADeviceWrittenByOffsetIsReadAsARecord) {
    fresh_area area;
    const area_writer write = area.writer();
    const size_t at = area_offset::device(200);
    write.i32(at + area_offset::next, 1);
    write.i32(at + area_offset::prev, -2);
    write.u8(at + area_offset::allocated, 3);
    write.i32(at + area_offset::domain, 0x10000);
    write.i32(at + area_offset::bus, -1);
    write.i32(at + area_offset::devfn, 0x7fffffff);
    write.u8(at + area_offset::online, 4);

    const iommu_dev_t& device = area.record().devices._arr[200];
    EXPECT_EQ(device.next, 1);
    EXPECT_EQ(device.prev, -2);
    EXPECT_EQ(device.allocated, 3);
    EXPECT_EQ(device.domain, 0x10000);
    EXPECT_EQ(device.bus, -1);
    EXPECT_EQ(device.devfn, 0x7fffffff);
    EXPECT_EQ(device.online, 4);
}

TEST(layout, AReferenceWrittenAsARecordIsReadByOffset) {
    fresh_area area;
    area.record().chunks._arr[16383].devs._arr[255] = {
        .next = 1, .prev = -2, .allocated = 3, .dev = 4};
    const area_ref read = area.view().ref(16383, 255);
    EXPECT_EQ(read.next, 1);
    EXPECT_EQ(read.prev, -2);
    EXPECT_EQ(read.allocated, 3);
    EXPECT_EQ(read.dev, 4);
}

TEST(layout, AReferenceWrittenByOffsetIsReadAsARecord) {
    fresh_area area;
    const area_writer write = area.writer();
    const size_t at = area_offset::ref(16383, 255);
    write.i32(at + area_offset::next, 1);
    write.i32(at + area_offset::prev, -2);
    write.u8(at + area_offset::allocated, 3);
    write.i32(at + area_offset::dev, 4);

    const iommu_dev_ref& ref = area.record().chunks._arr[16383].devs._arr[255];
    EXPECT_EQ(ref.next, 1);
    EXPECT_EQ(ref.prev, -2);
    EXPECT_EQ(ref.allocated, 3);
    EXPECT_EQ(ref.dev, 4);
}

TEST(layout, TheFrameIsReadAlikeByRecordAndByOffset) {
    fresh_area area;
    area.record().initialized = 1;
    area.record().chunks._head = 2;
    area.record().chunks._tail = 3;
    area.record().chunks._free = 4;
    area.record().devices._head = 5;
    area.record().devices._tail = 6;
    area.record().devices._free = 7;
    EXPECT_EQ(area.view().initialized(), 1);
    EXPECT_EQ(area.view().chunk_ends().head, 2);
    EXPECT_EQ(area.view().chunk_ends().tail, 3);
    EXPECT_EQ(area.view().chunk_ends().free, 4);
    EXPECT_EQ(area.view().device_ends().head, 5);
    EXPECT_EQ(area.view().device_ends().tail, 6);
    EXPECT_EQ(area.view().device_ends().free, 7);
}

std::vector<int> counting_from(int first, int end) {
    std::vector<int> numbers(static_cast<size_t>(end - first));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

TEST(layout, InitialisedListsAreEmptyAndChainEveryElementInOrder) {
    fresh_area area;
    area.record().chunks.init();
    area.record().devices.init();
    EXPECT_THAT(area.view().chunks(), IsEmpty());
    EXPECT_THAT(area.view().devices(), IsEmpty());
    EXPECT_EQ(area.view().chunk_ends().head, -1);
    EXPECT_EQ(area.view().chunk_ends().tail, -1);
    EXPECT_EQ(area.view().device_ends().head, -1);
    EXPECT_EQ(area.view().device_ends().tail, -1);
    EXPECT_EQ(area.view().free_chunks(), counting_from(0, 16384));
    EXPECT_EQ(area.view().free_devices(), counting_from(0, 256));
    EXPECT_EQ(area.view().chunk(16383).next, -1);
    EXPECT_EQ(area.view().device(255).next, -1);
}

TEST(layout, ABuiltAreaHoldsTheTwoSentinelsAndKeepsEveryRule) {
    fresh_area area;
    area.build(0x140000000, 0x10000000);
    const std::vector<area_chunk> chunks = area.view().chunks();
    ASSERT_EQ(chunks.size(), 2U);
    EXPECT_EQ(chunks[0].index, 0);
    EXPECT_EQ(chunks[0].name, "__HEAD");
    EXPECT_EQ(chunks[0].pa, 0x140000000U);
    EXPECT_EQ(chunks[1].index, 1);
    EXPECT_EQ(chunks[1].name, "__TAIL");
    EXPECT_EQ(chunks[1].pa, 0x150000000U);
    EXPECT_EQ(area.view().chunk_ends().free, 2);
    EXPECT_EQ(area.view().chunk(16383).next, -1);
    EXPECT_EQ(area.view().device_ends().free, 0);
    EXPECT_THAT(area_breaches(area.view()), IsEmpty());
}

TEST(layout, AnAllocatedChunksDeviceListIsBuiltAndTheSentinelsIsNot) {
    fresh_area area;
    area.build(0x1000, 0x100000);
    const int index = area.add_chunk(0, "buffer", 0x1000, 0x2000);
    EXPECT_EQ(area.view().chunk(index).devs.head, -1);
    EXPECT_EQ(area.view().chunk(index).devs.tail, -1);
    EXPECT_EQ(area.view().free_refs(index), counting_from(0, 256));
    EXPECT_THAT(area.view().chunk_bytes(0).subspan(172), Each(0));
    EXPECT_THAT(area.view().chunk_bytes(1).subspan(172), Each(0));
}

} // namespace
