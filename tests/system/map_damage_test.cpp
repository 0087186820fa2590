// What mapping, unmapping and finding make of records and lists that are damaged.

#include "world_test.hpp"

#include <csignal>

namespace map_damage_test {

namespace {

const std::string damaged = assertion("void* tarvo_map(const char*, bool, size_t, size_t)", "0");

std::string corruption(int chunk, uint64_t pa, int32_t size) {
    return "tarvo: chunk_desc_check() - DMA memory corrupted: chunk (" + std::to_string(chunk) +
           "), pa (" + hex(pa) + "), size (" + std::to_string(size) + ")\n";
}

/// A chunk "rx_ring" of two pages, which a test then moves.
class a_record_out_of_the_region : public world_test {
  protected:
    a_record_out_of_the_region() { user.alloc("rx_ring", pages(2)); }

    void move_to(uint64_t pa) {
        machine.writable_area().writer().u64(area_offset::chunk(2) + area_offset::pa, pa);
    }
};

TEST_P(a_record_out_of_the_region, AfterItEndsTheProcessThatMapsIt) {
    const uint64_t pa = region().end() - pages(1);
    move_to(pa);
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0"), aborted(corruption(2, pa, 8192) + damaged));
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    // Nothing is repaired.
    EXPECT_EQ(machine.area().view().chunk(2).pa, pa);
}

TEST_P(a_record_out_of_the_region, BeforeItEndsTheProcessThatMapsItWhateverTheWindow) {
    const uint64_t pa = region().start - 1;
    move_to(pa);
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0x3000 0"),
              aborted(corruption(2, pa, 8192) + damaged));
}

TEST_P(a_record_out_of_the_region, HasTheLockReleasedBeforeTheEnd) {
    move_to(0);
    user.call("fail flock EBADF 2");
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0"),
              aborted(corruption(2, 0, 8192) + release_failed));
}

TEST_P(a_record_out_of_the_region, IsTracedAtLevel3Too) {
    move_to(region().end());
    client talking = machine.start({"setenv ZUL_TRACE tarvo=3", "limits"});
    const std::string text = corruption(2, region().end(), 8192);
    EXPECT_EQ(fatal_outcome(talking, "map rx_ring 1 0 0"),
              aborted("[tarvo:3] tarvo:LINE chunk_desc_check: " + text + text + damaged));
}

TEST_P(a_record_out_of_the_region, IsNotNoticedWhenItEndsWithTheRegion) {
    move_to(region().end() - pages(2));
    EXPECT_EQ(mapping_at(user.map("rx_ring")),
              described("rw-s", region().end() - pages(2), pages(2)));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(a_record_out_of_the_region, IsNotExaminedByUnmappingAndFinding) {
    const uint64_t va = user.map("rx_ring");
    const uint64_t pa = region().end() - pages(1);
    move_to(pa);
    EXPECT_EQ(outcome(user, "unmap rx_ring " + std::to_string(va) + " 0"), "0\n");
    EXPECT_EQ(user.find(region().end_dma() - 1), (found_chunk{"rx_ring", region().dma(pa)}));
    EXPECT_EQ(user.error_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, a_record_out_of_the_region, testing::ValuesIn(all_worlds()),
                         world_name());

TEST(a_record_of_2_gib_and_more, IsReportedWithItsSizeSigned) {
    sandbox machine(low);
    client user = machine.start({"alloc rx_ring 4096 me"});
    machine.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 0xfffff000);
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0"),
              aborted(corruption(2, low.start, -4096) + damaged));
}

TEST(the_region_of_the_process, AndNotTheSentinelsDecidesWhatIsDamaged) {
    sandbox machine(low);
    client user = machine.start({"alloc rx_ring 4096 me"});
    machine.writable_area().writer().u64(area_offset::chunk(1) + area_offset::pa, low.start);
    EXPECT_NE(user.map("rx_ring"), 0U);
    EXPECT_EQ(user.error_text(), "");
}

// ---- Lists ----

/// Three chunks in records 2, 3 and 4, and how each call looks for the one in the middle.
class a_damaged_list : public testing::Test {
  protected:
    a_damaged_list() {
        for (const char* name : {"first", "middle", "last"}) {
            user.alloc(name, 4096);
        }
    }

    area_file area() const { return machine.writable_area(); }

    /// Each call in a program of its own.
    void expect_deaths(const std::string& name, uint32_t dma, const std::string& last_words) {
        for (const std::string& command : {"map " + name + " 1 0 0", "unmap " + name + " 0x1000 0",
                                           "find " + std::to_string(dma)}) {
            client victim = machine.start({"limits"});
            EXPECT_EQ(fatal_outcome(victim, command), aborted(last_words)) << command;
        }
    }

    sandbox machine{simulation};
    client user = machine.start();
};

TEST_F(a_damaged_list, WhoseHeadIsNotInUseEndsTheProcess) {
    area().writer().u8(area_offset::chunk(0) + area_offset::allocated, 0);
    expect_deaths("middle", 0x2000, container_assertion(32, "cur->allocated"));
}

TEST_F(a_damaged_list, WithAnElementNotInUseEndsTheProcessThatGoesOnAfterIt) {
    area().writer().u8(area_offset::chunk(2) + area_offset::allocated, 0);
    expect_deaths("middle", 0x2000, container_assertion(32, "cur->allocated"));
}

TEST_F(a_damaged_list, WithAnElementNotInUseStillFindsThatElementKeptOnPurpose) {
    area().writer().u8(area_offset::chunk(3) + area_offset::allocated, 0);
    EXPECT_NE(user.map("middle"), 0U);
    EXPECT_EQ(user.find(0x2000), (found_chunk{"middle", 0x2000}));
    EXPECT_EQ(user.unmap("middle", 0x7f0000000000), 0);
    EXPECT_EQ(user.error_text(), "");
}

TEST_F(a_damaged_list, WithALinkToNoElementEndsTheProcess) {
    for (const int32_t link : {16384, -2}) {
        area().writer().i32(area_offset::chunk(2) + area_offset::next, link);
        expect_deaths("middle", 0x2000, container_assertion(159, "idx >= 0 && idx < MAX"));
    }
}

TEST_F(a_damaged_list, ThatEndsEarlyHidesWhatFollows) {
    area().writer().i32(area_offset::chunks_tail, 2);
    EXPECT_NE(user.map("first"), 0U);
    EXPECT_EQ(user.map("middle"), 0U);
    EXPECT_EQ(user.find(0x1fff), (found_chunk{"first", 0x1000}));
    EXPECT_EQ(user.find(0x2000), (found_chunk{std::nullopt, 0}));
    EXPECT_EQ(user.error_text(), "");
}

TEST_F(a_damaged_list, ThatEndsWithItsHeadHidesEverything) {
    area().writer().i32(area_offset::chunks_tail, 0);
    EXPECT_EQ(user.map("first"), 0U);
    EXPECT_EQ(user.find(0x1000), (found_chunk{std::nullopt, 0}));
    EXPECT_EQ(fatal_outcome(user, "unmap first 0x1000 0"),
              aborted(assertion("int tarvo_unmap(const char*, void*, size_t)", "found")));
}

TEST_F(a_damaged_list, ThatGoesOnAfterItsEndIsWalkedToTheSentinelAlone) {
    area().writer().i32(area_offset::chunks_tail, 16383);
    EXPECT_EQ(user.map("nothing"), 0U);
    EXPECT_EQ(user.find(0x5000), (found_chunk{std::nullopt, 0}));
    EXPECT_NE(user.map("last"), 0U);
    EXPECT_EQ(user.error_text(), "");
}

} // namespace

} // namespace map_damage_test
