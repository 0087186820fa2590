// A request for a name that exists: the same chunk for everybody, or a second one of another size.

#include "world_test.hpp"

namespace allocate_share_test {

namespace {

class sharing : public world_test {
  protected:
    client& first = user;
    client second = machine.start();
};

TEST_P(sharing, GivesTwoProcessesTheSameChunk) {
    EXPECT_EQ(first.alloc("rx_ring", 5000, "first"), region().start_dma);
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(second.alloc("rx_ring", 5000, "second"), region().start_dma);
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(machine.area().view().chunk(2).creator, "first");
    EXPECT_EQ(second.error_text(), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(sharing, TakesNamesForTheSameOnlyFromTheirFirstByteToTheirLast) {
    const texts names = {"rx_ring_of_port_1",
                         "RX_RING_OF_PORT_1",
                         "tx_ring_of_port_1",
                         "rx_ring_of_port_2",
                         "rx_ring_of_port_",
                         "ring_of_port_1",
                         "1",
                         "port_1",
                         "_port_1",
                         std::string(49, 'x'),
                         std::string(48, 'x')};
    for (size_t i = 0; i < names.size(); i++) {
        EXPECT_EQ(first.alloc(names[i], pages(1)), region().start_dma + pages(i)) << names[i];
    }
    for (size_t i = 0; i < names.size(); i++) {
        EXPECT_EQ(second.alloc(names[i], pages(1)), region().start_dma + pages(i)) << names[i];
    }
}

TEST_P(sharing, ComparesSizesInWholePages) {
    EXPECT_EQ(first.alloc("rx_ring", 1), region().start_dma);
    EXPECT_EQ(second.alloc("rx_ring", 4096), region().start_dma);
    // In the 32 bits that records have.
    EXPECT_EQ(second.alloc("rx_ring", 0x100000001), region().start_dma);
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
}

TEST_P(sharing, LeavesTheMemoryAsTheOthersHaveIt) {
    first.alloc("rx_ring", pages(2));
    mapped_region region(first);
    region.fill(0, 2, 0xa5);
    second.alloc("rx_ring", pages(2));
    EXPECT_TRUE(region.filled(0, 2, 0xa5));
    EXPECT_TRUE(mapped_region(second).filled(0, 2, 0xa5));
}

TEST_P(sharing, TakesTheLockAndAsksForNothingElse) {
    first.register_device(0, 3, 0);
    first.alloc("rx_ring", 4096);
    const texts before = machine.driver_log();
    first.call("calls");
    first.alloc("rx_ring", 4096);
    EXPECT_EQ(first.call("calls"), only_the_lock());
    EXPECT_EQ(machine.driver_log(), before);
}

TEST_P(sharing, IsTracedLikeAnAllocation) {
    const std::string place = first.call("alloc rx_ring 4096 first");
    client watched = machine.start({"setenv ZUL_TRACE tarvo=5"});
    watched.limits();
    EXPECT_EQ(
        outcome(watched, R"(alloc rx_ring 4095 "second one")"),
        place + "\n" +
            traced(5, "tarvo_alloc_func",
                   "tarvo_alloc_func: name rx_ring size 4095 creator second one") +
            traced(5, "tarvo_alloc_func",
                   "tarvo_alloc_func: name rx_ring pa 0x" + hex(region().start) + " dma " + place));
}

INSTANTIATE_TEST_SUITE_P(, sharing, testing::ValuesIn(all_worlds()), world_name());

class another_size : public world_test {};

TEST_P(another_size, MakesASecondChunkOfTheNameAndSaysSoKeptOnPurpose) {
    user.alloc("rx_ring", 4096);
    const uint32_t after = region().start_dma + 4096;
    EXPECT_EQ(user.alloc("rx_ring", 8192, "other"), after);
    EXPECT_EQ(user.error_text(), size_mismatch);
    EXPECT_EQ(layout(machine), "rx_ring:0+1 rx_ring:1+2");
    EXPECT_EQ(machine.area().view().chunk(3).creator, "other");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(another_size, IsDecidedByTheLowestChunkOfTheNameAloneKeptOnPurpose) {
    user.alloc("rx_ring", 4096);
    user.alloc("rx_ring", 8192);
    user.alloc("rx_ring", 8192);
    EXPECT_EQ(layout(machine), "rx_ring:0+1 rx_ring:1+2 rx_ring:3+2");
    EXPECT_EQ(user.alloc("rx_ring", 4096), region().start_dma);
    EXPECT_EQ(user.error_text(), std::string(size_mismatch) + size_mismatch);
}

TEST_P(another_size, IsDecidedByAddressAndNotByAge) {
    user.alloc("below", 8192);
    user.alloc("rx_ring", 4096);
    user.free("below");
    user.alloc("rx_ring", 8192);
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(layout(machine), "rx_ring:0+2 rx_ring:2+1 rx_ring:3+1");
    EXPECT_EQ(user.alloc("rx_ring", 8192), region().start_dma);
    EXPECT_EQ(user.error_text(), std::string(size_mismatch) + size_mismatch);
}

TEST_P(another_size, IsReportedEvenWhereNoSecondChunkHasRoom) {
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(outcome(user, "alloc rx_ring 0xfffff000 me"), std::string("0x0\n") + size_mismatch);
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
}

TEST_P(another_size, DoesNotMatterForTheSentinelsWhoseNamesAreFreeToUse) {
    user.alloc("__HEAD", 4096);
    user.alloc("__TAIL", 4096);
    EXPECT_EQ(user.alloc("__TAIL", 4096), region().start_dma + 4096);
    EXPECT_EQ(layout(machine), "__HEAD:0+1 __TAIL:1+1");
    EXPECT_EQ(user.error_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, another_size, testing::ValuesIn(region_worlds()), world_name());

} // namespace

} // namespace allocate_share_test
