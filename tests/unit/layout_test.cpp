#include "fresh_area.hpp"

#include <algorithm>
#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <ostream>
#include <vector>

// The shared area is a contract between processes of every build. It is written down a second time
// in area.cpp, as numbers; what is set through one of the two views is looked for through both.

namespace {

using testing::_;
using testing::Each;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

TEST(layout, AChunkWrittenByOffsetIsReadAsARecordAndByOffset) {
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
    EXPECT_THAT(area.view().chunk(1234),
                FieldsAre(1234, 0x01020304, -2, 5, "rx_ring", 0x1122334455667788U, 0x99aabbccU,
                          "agent", FieldsAre(11, 12, 13)));
}

TEST(layout, ADeviceWrittenByOffsetIsReadAsARecordAndByOffset) {
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
    EXPECT_THAT(area.record().devices._arr[200], FieldsAre(1, -2, 3, 0x10000, -1, 0x7fffffff, 4));
    EXPECT_THAT(area.view().device(200), FieldsAre(200, 1, -2, 3, 0x10000, -1, 0x7fffffff, 4));
}

TEST(layout, AReferenceWrittenByOffsetIsReadAsARecordAndByOffset) {
    fresh_area area;
    const area_writer write = area.writer();
    const size_t at = area_offset::ref(16383, 255);
    write.i32(at + area_offset::next, 1);
    write.i32(at + area_offset::prev, -2);
    write.u8(at + area_offset::allocated, 3);
    write.i32(at + area_offset::dev, 4);
    EXPECT_THAT(area.record().chunks._arr[16383].devs._arr[255], FieldsAre(1, -2, 3, 4));
    EXPECT_THAT(area.view().ref(16383, 255), FieldsAre(255, 1, -2, 3, 4));
}

TEST(layout, TheFrameWrittenAsARecordIsReadByOffset) {
    fresh_area area;
    area.record().initialized = 1;
    area.record().chunks._head = 2;
    area.record().chunks._tail = 3;
    area.record().chunks._free = 4;
    area.record().devices._head = 5;
    area.record().devices._tail = 6;
    area.record().devices._free = 7;
    EXPECT_EQ(area.view().initialized(), 1);
    EXPECT_THAT(area.view().chunk_ends(), FieldsAre(2, 3, 4));
    EXPECT_THAT(area.view().device_ends(), FieldsAre(5, 6, 7));
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
    EXPECT_THAT(area.view().chunk_ends(), FieldsAre(-1, -1, 0));
    EXPECT_THAT(area.view().device_ends(), FieldsAre(-1, -1, 0));
    EXPECT_EQ(area.view().free_chunks(), counting_from(0, 16384));
    EXPECT_EQ(area.view().free_devices(), counting_from(0, 256));
    EXPECT_EQ(area.view().chunk(16383).next, -1);
    EXPECT_EQ(area.view().device(255).next, -1);
}

TEST(layout, ABuiltAreaHoldsTheTwoSentinelsAndKeepsEveryRule) {
    fresh_area area;
    area.build(0x140000000, 0x10000000);
    EXPECT_THAT(area.view().chunks(),
                ElementsAre(FieldsAre(0, 1, 1, 1, "__HEAD", 0x140000000U, 0U, "", _),
                            FieldsAre(1, 0, 0, 1, "__TAIL", 0x150000000U, 0U, "", _)));
    EXPECT_EQ(area.view().chunk_ends().free, 2);
    EXPECT_EQ(area.view().chunk(16383).next, -1);
    EXPECT_EQ(area.view().device_ends().free, 0);
    EXPECT_THAT(area_breaches(area.view()), IsEmpty());
}

TEST(layout, AnAllocatedChunksDeviceListIsBuiltAndTheSentinelsIsNot) {
    fresh_area area;
    area.build(0x1000, 0x100000);
    const int index = area.add_chunk(0, "buffer", 0x1000, 0x2000);
    EXPECT_THAT(area.view().chunk(index).devs, FieldsAre(-1, -1, 0));
    EXPECT_EQ(area.view().free_refs(index), counting_from(0, 256));
    EXPECT_THAT(area.view().chunk_bytes(0).subspan(172), Each(0));
    EXPECT_THAT(area.view().chunk_bytes(1).subspan(172), Each(0));
}

} // namespace
