// Which chunk a DMA address lies in.

#include "world_test.hpp"

namespace find_test {

namespace {

const std::string not_in_region = assertion(
    "uint64_t tarvo_dma_to_pa(uint32_t)", "res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa");

/// The reply of a find that finds nothing.
const found_chunk nothing{std::nullopt, 0};

class finding : public world_test {
  protected:
    static uint32_t dma(uint64_t offset) { return region().dma(region().start + offset); }
};

TEST_P(finding, AnyByteOfAChunkGivesItsNameAndItsFirstByte) {
    user.alloc("tx_ring", pages(1));
    user.alloc("rx_ring", pages(3));
    const found_chunk expected{"rx_ring", dma(pages(1))};
    for (const uint64_t offset : {pages(1), pages(1) + 1, pages(2), pages(4) - 1}) {
        EXPECT_EQ(user.find(dma(offset)), expected) << offset;
    }
    EXPECT_EQ(user.find(dma(pages(1) - 1)), (found_chunk{"tx_ring", dma(0)}));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(finding, OneByteAfterAChunkGivesItsNeighbourOrNothing) {
    user.alloc("first", pages(2));
    user.alloc("middle", pages(1));
    user.alloc("last", pages(1));
    EXPECT_EQ(user.find(dma(pages(2))), (found_chunk{"middle", dma(pages(2))}));
    EXPECT_EQ(user.find(dma(pages(4))), nothing);
    user.free("middle");
    EXPECT_EQ(user.find(dma(pages(2))), nothing);
    EXPECT_EQ(user.find(dma(pages(3) - 1)), nothing);
    EXPECT_EQ(user.find(dma(pages(3))), (found_chunk{"last", dma(pages(3))}));
}

TEST_P(finding, NeverFindsASentinel) {
    EXPECT_EQ(user.find(region().start_dma), nothing);
    EXPECT_EQ(user.find(region().end_dma()), nothing);
    EXPECT_EQ(user.find(region().end_dma() - 1), nothing);
    // Not even one that claims to have bytes: the walk leaves both out.
    const area_file area = machine.writable_area();
    area.writer().u32(area_offset::chunk(0) + area_offset::size, 0x1000);
    area.writer().u32(area_offset::chunk(1) + area_offset::size, 0x1000);
    EXPECT_EQ(user.find(region().start_dma), nothing);
    EXPECT_EQ(user.find(region().end_dma()), nothing);
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(finding, ReachesTheLastByteOfTheRegion) {
    user.alloc("rx_ring", pages(1));
    machine.writable_area().writer().u64(area_offset::chunk(2) + area_offset::pa,
                                         region().end() - pages(1));
    EXPECT_EQ(user.find(region().end_dma() - 1),
              (found_chunk{"rx_ring", region().end_dma() - 0x1000}));
    EXPECT_EQ(user.find(region().end_dma()), nothing);
}

TEST_P(finding, OutsideTheRegionEndsTheProcess) {
    user.alloc("rx_ring", pages(1));
    client other = machine.start({"limits"});
    EXPECT_EQ(fatal_outcome(user, "find " + std::to_string(region().start_dma - 1)),
              aborted(not_in_region));
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    EXPECT_EQ(fatal_outcome(other, "find " + std::to_string(region().end_dma() + 1)),
              aborted(not_in_region));
}

TEST_P(finding, LooksAtTheAddressOnlyOnceItHasTheLock) {
    user.limits();
    {
        const held_lock lock(machine.lock_file());
        user.send("find " + std::to_string(region().start_dma - 1));
        user.wait_until_it_waits_for_a_lock();
        EXPECT_EQ(user.error_text(), "");
    }
    EXPECT_THROW(user.reply(), std::runtime_error);
    EXPECT_EQ(user.new_text(), not_in_region);
}

TEST_P(finding, GivesTheNameInTheSharedAreaItself) {
    user.alloc("tx_ring", pages(1));
    user.alloc("rx_ring", pages(1));
    EXPECT_EQ(user.call("place_of_name " + std::to_string(dma(pages(1)))),
              std::to_string(area_offset::chunk(3) + area_offset::name));
}

TEST_P(finding, TakesTheLockAndAsksTheSystemForNothingElse) {
    user.alloc("rx_ring", pages(1));
    user.call("calls");
    user.find(dma(0));
    user.find(dma(pages(1)));
    EXPECT_EQ(user.call("calls"), only_the_lock() + " " + only_the_lock());
}

TEST_P(finding, TakesTheLowerOfTwoChunksThatOverlap) {
    user.alloc("lower", pages(1));
    user.alloc("upper", pages(1));
    machine.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size,
                                         static_cast<uint32_t>(pages(2)));
    EXPECT_EQ(user.find(dma(pages(1))), (found_chunk{"lower", dma(0)}));
}

INSTANTIATE_TEST_SUITE_P(, finding, testing::ValuesIn(all_worlds()), world_name());

TEST(finding_in_a_large_chunk, TakesItsSizeUnsignedAndItsEndIn64Bits) {
    sandbox machine(high, {"--region", "200000000-2efffffff"});
    client user = machine.start({"alloc rx_ring 4096 me"});
    const area_file area = machine.writable_area();
    area.writer().u64(area_offset::chunk(2) + area_offset::pa, 0x208000000);
    area.writer().u32(area_offset::chunk(2) + area_offset::size, 0xd0000000);
    EXPECT_EQ(user.find(0x27ffffff), nothing);
    EXPECT_EQ(user.find(0x28000000), (found_chunk{"rx_ring", 0x28000000}));
    EXPECT_EQ(user.find(0xf7ffffff), (found_chunk{"rx_ring", 0x28000000}));
    EXPECT_EQ(user.find(0xf8000000), nothing);
}

TEST(finding_an_address_that_wrapped_around, EndsTheProcessKeptOnPurpose) {
    sandbox machine(high, {"--region", "200000000-2efffffff"});
    client user = machine.start({"alloc rx_ring 4096 me"});
    machine.writable_area().writer().u64(area_offset::chunk(2) + area_offset::pa, 0x2e0001000);
    EXPECT_EQ(user.alloc("rx_ring", 4096), 0x1000U);
    EXPECT_EQ(fatal_outcome(user, "find 0x1000"), aborted(not_in_region));
}

TEST(finding_across_4_gib, ComparesIn64Bits) {
    sandbox machine(crossing);
    client user = machine.start({"alloc rx_ring 0x2000 me"});
    machine.writable_area().writer().u64(area_offset::chunk(2) + area_offset::pa, 0xfffff000);
    const found_chunk expected{"rx_ring", 0x2ffff000};
    EXPECT_EQ(user.find(0x2fffffff), expected);
    EXPECT_EQ(user.find(0x30000000), expected);
    EXPECT_EQ(user.find(0x30001000), nothing);
}

TEST(tracing_of_a_find, IsThatOfItsTranslations) {
    sandbox machine(high);
    client user = machine.start({"setenv ZUL_TRACE tarvo=6", "alloc rx_ring 4096 me"});
    EXPECT_EQ(outcome(user, "find 0x20000010"),
              "\"rx_ring\" 0x20000000\n" +
                  traced(6, "tarvo_dma_to_pa", "tarvo_dma_to_pa: 20000010 -> 200000010") +
                  traced(6, "tarvo_pa_to_dma", "tarvo_pa_to_dma: 200000000->  20000000"));
    EXPECT_EQ(outcome(user, "find 0x20001000"),
              "null 0x0\n" +
                  traced(6, "tarvo_dma_to_pa", "tarvo_dma_to_pa: 20001000 -> 200001000"));
}

} // namespace

} // namespace find_test
