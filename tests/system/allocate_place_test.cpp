// Where a new chunk lies: the lowest gap that is large enough.

#include "world_test.hpp"

namespace allocate_place_test {

namespace {

namespace offset = area_offset;

class placement : public world_test {
  protected:
    uint32_t alloc(const char* name, uint64_t page_count) {
        return user.alloc(name, pages(page_count));
    }

    static uint32_t dma_of_page(uint64_t page) {
        return region().dma(region().start + pages(page));
    }

    /// One chunk at the region's start that leaves so many pages free after it.
    void fill_all_but(uint64_t page_count) {
        alloc("ballast", 1);
        const area_file area = machine.writable_area();
        area.writer().u32(offset::chunk(2) + offset::size,
                          static_cast<uint32_t>(region().bytes - pages(page_count)));
    }
};

TEST_P(placement, OfTheFirstChunkIsTheRegionsStartAndOfTheNextDirectlyAfter) {
    EXPECT_EQ(alloc("a", 1), dma_of_page(0));
    EXPECT_EQ(alloc("b", 2), dma_of_page(1));
    EXPECT_EQ(alloc("c", 1), dma_of_page(3));
    EXPECT_EQ(layout(machine), "a:0+1 b:1+2 c:3+1");
    EXPECT_EQ(troubles(machine), texts{});
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(placement, TakesTheRegionsStartAgainOnceThatIsFree) {
    alloc("a", 2);
    alloc("b", 1);
    EXPECT_EQ(user.free("a"), 0);
    EXPECT_EQ(alloc("c", 1), dma_of_page(0));
    EXPECT_EQ(layout(machine), "c:0+1 b:2+1");
}

TEST_P(placement, IsTheFirstGapThatIsLargeEnoughAndNotTheOneThatFitsBest) {
    for (const auto& [name, page_count] :
         {std::pair{"a", 3U}, {"b", 1U}, {"c", 1U}, {"d", 1U}, {"e", 2U}, {"f", 1U}}) {
        alloc(name, page_count);
    }
    for (const char* name : {"a", "c", "e"}) {
        EXPECT_EQ(user.free(name), 0);
    }
    // The gaps are of 3, 1 and 2 pages. The rest of a gap stays free above the chunk.
    EXPECT_EQ(alloc("g", 1), dma_of_page(0));
    EXPECT_EQ(alloc("h", 2), dma_of_page(1));
    EXPECT_EQ(alloc("i", 2), dma_of_page(6));
    EXPECT_EQ(alloc("j", 2), dma_of_page(9));
    EXPECT_EQ(layout(machine), "g:0+1 h:1+2 b:3+1 d:5+1 i:6+2 f:8+1 j:9+2");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(placement, CanFillTheRegionToItsLastByte) {
    fill_all_but(3);
    EXPECT_EQ(alloc("rest", 3), static_cast<uint32_t>(region().end_dma() - pages(3)));
    EXPECT_EQ(alloc("more", 1), 0U);
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(placement, ThatFindsNoGapChangesNothingAndSaysNothing) {
    fill_all_but(3);
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(outcome(user, "alloc more " + std::to_string(pages(3) + 1) + " me"), "0x0\n");
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(placement, HandsOutTheRecordFreedLast) {
    for (const char* name : {"a", "b", "c"}) {
        alloc(name, 1);
    }
    user.free("a");
    user.free("c");
    alloc("d", 1);
    alloc("e", 1);
    std::vector<int> elements;
    for (const area_chunk& chunk : machine.area().view().chunks()) {
        elements.push_back(chunk.index);
    }
    EXPECT_EQ(layout(machine), "d:0+1 b:1+1 e:2+1");
    EXPECT_EQ(elements, (std::vector<int>{0, 4, 3, 2, 1}));
}

TEST_P(placement, LeavesGapsThatFreeSizeReports) {
    for (const char* name : {"a", "b", "c"}) {
        alloc(name, 2);
    }
    user.free("b");
    EXPECT_EQ(user.call("free_size 0 2"), "0x0");
    EXPECT_EQ(user.call("free_size 2 4"), "0x2000");
    EXPECT_EQ(std::stoull(user.call("free_size 4 1"), nullptr, 0), region().bytes - pages(6));
}

INSTANTIATE_TEST_SUITE_P(, placement, testing::ValuesIn(region_worlds()), world_name());

/// A list that goes on after __TAIL, with much room there, for a process that has started before.
class damaged_tail : public world_test {
  protected:
    damaged_tail() {
        user.call("setenv ZUL_TRACE tarvo=3");
        user.alloc("stray", 4096);
        const area_file area = machine.writable_area();
        area.writer().i32(offset::chunk(0) + offset::next, 1);
        area.writer().i32(offset::chunk(1) + offset::next, 2);
        area.writer().u64(offset::chunk(2) + offset::pa, region().end() + 2 * region().bytes);
        area.writer().i32(offset::chunks_tail, 2);
    }
};

TEST_P(damaged_tail, EndsTheSearchForAPlaceAllTheSame) {
    machine.add_rules({"op=allocate,address=0x" + hex(region().end() + pages(1))});
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(outcome(user, "alloc new " + std::to_string(region().bytes + 1) + " me"),
              "0x0\n" + traced(3, "tarvo_alloc_func", "tarvo_alloc_func: ran out of tarvo space"));
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
}

INSTANTIATE_TEST_SUITE_P(, damaged_tail, testing::ValuesIn(all_worlds()), world_name());

TEST(a_small_region, HoldsOneChunkOfItsWholeSizeAndNoLargerOne) {
    sandbox machine(high, {"--region", "200000000-20000ffff"});
    client user = machine.start();
    EXPECT_EQ(user.alloc("larger", 0x10001), 0U);
    EXPECT_EQ(user.alloc("whole", 0x10000), 0x20000000U);
    EXPECT_EQ(user.alloc("another", 1), 0U);
    EXPECT_EQ(user.free("whole"), 0);
    EXPECT_EQ(user.alloc("another", 1), 0x20000000U);
    EXPECT_EQ(layout(machine), "another:0+1");
    EXPECT_EQ(user.error_text(), "");
}

TEST(free_size, IsComputedIn64BitsWithoutSignAndWithoutAnyCheck) {
    sandbox machine(simulation);
    client user = machine.start();
    EXPECT_EQ(user.call("free_size_of 0x200000000 0x1000 0x200005000"), "0x4000");
    EXPECT_EQ(user.call("free_size_of 0 0xffffffff 0x100000000"), "0x1");
    EXPECT_EQ(user.call("free_size_of 0x2000 0x1000 0x2000"), "0xfffffffffffff000");
    EXPECT_EQ(user.call("free_size_of 0x2000 0 0x1000"), "0xfffffffffffff000");
    EXPECT_EQ(user.call("free_size_of 0xfffffffffffff000 0x1000 0x1000"), "0x1000");
}

} // namespace

} // namespace allocate_place_test
