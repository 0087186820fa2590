// The check of chunk records, seen through requests for chunks whose records were damaged.

#include "world_test.hpp"

namespace check_test {

namespace {

namespace offset = area_offset;

constexpr int rx_ring = 2; ///< its element

/// Puts the record where the test wants it.
void move(const sandbox& machine, int element, uint64_t pa, uint32_t size = 4096) {
    const area_file area = machine.writable_area();
    area.writer().u64(offset::chunk(element) + offset::pa, pa);
    area.writer().u32(offset::chunk(element) + offset::size, size);
}

std::string report(int element, uint64_t pa, const std::string& size = "4096") {
    return "tarvo: chunk_desc_check() - DMA memory corrupted: chunk (" + std::to_string(element) +
           "), pa (" + hex(pa) + "), size (" + size + ")";
}

class check : public world_test {
  protected:
    check() { user.alloc("rx_ring", 4096); }

    /// What comes of asking for the chunk once its record is damaged.
    std::string asked_again(uint64_t pa) {
        move(machine, rx_ring, pa);
        return outcome(user, "alloc rx_ring 4096 me");
    }

    static std::string passed(uint64_t pa) { return "0x" + hex(region().dma(pa)) + "\n"; }
    static std::string failed(uint64_t pa) { return "0x0\n" + report(rx_ring, pa) + "\n"; }

    const uint64_t start = region().start;
    const uint64_t end = region().end();
};

TEST_P(check, PassesAChunkThatEndsExactlyAtTheRegionsEnd) {
    EXPECT_EQ(asked_again(end - 4096), passed(end - 4096));
    EXPECT_EQ(machine.area().view().chunks().size(), 3U);
}

TEST_P(check, FailsAChunkThatEndsOneByteLater) {
    EXPECT_EQ(asked_again(end - 4095), failed(end - 4095));
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(check, FailsAChunkThatStartsOneByteBelowTheRegion) {
    EXPECT_EQ(asked_again(start - 1), failed(start - 1));
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(check, FailsAChunkFarBelowAndFarAboveTheRegion) {
    EXPECT_EQ(asked_again(0), failed(0));
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(asked_again(0xfffffffffffff), failed(0xfffffffffffff));
}

TEST_P(check, PassesChunksThatOverlapOrLieBetweenPages) {
    user.alloc("tx_ring", 8192);
    EXPECT_EQ(asked_again(start + 4097), passed(start + 4097));
    EXPECT_EQ(machine.area().view().chunks().size(), 4U);
}

TEST_P(check, IsFooledByAnEndThatWrapsKeptOnPurpose) {
    move(machine, rx_ring, 0xfffffffffffff000);
    // The address is then no longer one of the region's, which the translation sees.
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 4096 me"), aborted(not_in_the_region()));
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

TEST_P(check, WidensSizesWithoutSignAndPrintsThemWithIt) {
    move(machine, rx_ring, start + 4096, 0xfffff000);
    EXPECT_EQ(outcome(user, "alloc rx_ring 0xfffff000 me"),
              "0x0\n" + report(rx_ring, start + 4096, "-4096") + "\n");
}

TEST_P(check, IsTracedBeforeItIsPrinted) {
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3"});
    move(machine, rx_ring, start - 1);
    EXPECT_EQ(outcome(watched, "alloc rx_ring 4096 me"),
              "0x0\n" + traced(3, "chunk_desc_check", report(rx_ring, start - 1)) +
                  report(rx_ring, start - 1) + "\n");
}

TEST_P(check, OfASharedChunkTakesItOffTheListAndLeavesDevicesAloneKeptOnPurpose) {
    user.register_device(0, 3, 0);
    const texts lines = machine.request_lines();
    user.alloc("tx_ring", 4096);
    EXPECT_EQ(asked_again(start - 1), failed(start - 1));
    EXPECT_EQ(layout(machine), "tx_ring:1+1");
    EXPECT_EQ(troubles(machine), texts{});
    // One request, for tx_ring, and none that would unmap anything.
    EXPECT_EQ(machine.request_lines().size(), lines.size() + 1);
    EXPECT_EQ(user.free("rx_ring"), -1);
}

TEST_P(check, OfASharedChunkAsksACmaDriverToReleaseIt) {
    asked_again(start - 1);
    EXPECT_EQ(machine.cma_commands(),
              region().cma ? (texts{"a rx_ring 1000\n", "r rx_ring 1000\n"}) : texts{});
}

TEST_P(check, ClearsTheRecordThatItFails) {
    asked_again(start - 1);
    const area_file area = machine.area();
    EXPECT_EQ(area.view().chunk_ends().free, rx_ring);
    EXPECT_EQ(area.view().chunk(rx_ring).next, rx_ring + 1);
    EXPECT_EQ(area.view().chunk(rx_ring).name, "");
    EXPECT_EQ(user.alloc("rx_ring", 4096), region().start_dma);
}

TEST_P(check, FailsAnEmptyChunkOneByteBelowTheRegionWhichEndsTheProcessThatMapsIt) {
    move(machine, rx_ring, start - 1, 0);
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0"),
              aborted(report(rx_ring, start - 1, "0") + "\n" +
                      assertion("void* tarvo_map(const char*, bool, size_t, size_t)", "0")));
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

TEST_P(check, PassesAnEmptyChunkAtEitherEndOfTheRegion) {
    for (const uint64_t pa : {start, end}) {
        move(machine, rx_ring, pa, 0);
        // Passed, and then refused as a window of no bytes.
        EXPECT_EQ(outcome(user, "map rx_ring 1 0 0"), "null\n");
    }
}

INSTANTIATE_TEST_SUITE_P(, check, testing::ValuesIn(all_worlds()), world_name());

/// A process whose region begins above the shared __HEAD: what it allocates first lies outside.
class check_of_a_new_chunk : public world_test {
  protected:
    check_of_a_new_chunk() {
        user.limits();
        move(machine, 0, below, 0);
    }

    const uint64_t below = region().start - 4096;
};

TEST_P(check_of_a_new_chunk, ThatFailsTakesItOffTheListAgain) {
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"), "0x0\n" + report(rx_ring, below) + "\n");
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(check_of_a_new_chunk, ComesBeforeAnyRequestAndBeforeTheMemoryIsTouched) {
    user.register_device(0, 3, 0);
    user.call("calls");
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(user.call("calls"), only_the_lock());
    EXPECT_EQ(machine.request_lines(), texts{});
}

TEST_P(check_of_a_new_chunk, ReportsTheNumberOfItsElement) {
    const area_file area = machine.writable_area();
    area.writer().i32(offset::chunks_free, 16383);
    EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"), "0x0\n" + report(16383, below) + "\n");
}

INSTANTIATE_TEST_SUITE_P(, check_of_a_new_chunk, testing::ValuesIn(region_worlds()), world_name());

TEST(check_of_a_new_chunk_of_the_drivers, ThatReachesOutOfTheRegionTakesItOffTheListAgain) {
    sandbox machine(cma, {"--rule", "op=allocate,address=0x13ffff000"});
    client user = machine.start({"register 0 3 0"});
    EXPECT_EQ(outcome(user, "alloc rx_ring 8192 me"),
              "0x0\n" + report(rx_ring, 0x13ffff000, "8192") + "\n");
    EXPECT_EQ(machine.cma_commands(), (texts{"a rx_ring 2000\n", "r rx_ring 2000\n"}));
    EXPECT_EQ(machine.request_lines(), texts{});
    EXPECT_EQ(troubles(machine), texts{});
    // One page less ends where the region ends.
    EXPECT_EQ(user.alloc("rx_ring", 4096), 0x5ffff000U);
}

} // namespace

} // namespace check_test
