// DMA addresses and physical ones, and where a region's range of them begins.

#include "world_test.hpp"

#include <csignal>

namespace translation_test {

namespace {

const std::string not_a_dma_address = assertion(
    "uint64_t tarvo_dma_to_pa(uint32_t)", "res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa");

class translation : public world_test {
  protected:
    /// Each in a program of its own.
    void expect_deaths(uint64_t pa, uint32_t dma) {
        client of_pa = machine.start();
        EXPECT_EQ(fatal_outcome(of_pa, "to_dma " + std::to_string(pa)),
                  aborted(not_in_the_region()))
            << pa;
        client of_dma = machine.start();
        EXPECT_EQ(fatal_outcome(of_dma, "to_pa " + std::to_string(dma)), aborted(not_a_dma_address))
            << dma;
    }
};

TEST_P(translation, AcceptsTheWholeRegionItsEndIncluded) {
    for (const uint64_t offset : {uint64_t{0}, uint64_t{1}, pages(1), region().bytes / 2,
                                  region().bytes - 1, region().bytes}) {
        const uint64_t pa = region().start + offset;
        EXPECT_EQ(user.to_dma(pa), region().dma(pa)) << offset;
        EXPECT_EQ(user.to_pa(region().dma(pa)), pa) << offset;
    }
    EXPECT_EQ(user.limits(), (dma_limits{0, region().start_dma, region().end_dma()}));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(translation, OfWhatLiesOutsideEndsTheProcess) {
    expect_deaths(region().end() + 1, region().end_dma() + 1);
    expect_deaths(region().start - 1, region().start_dma - 1);
    expect_deaths(0, 0);
    expect_deaths(~uint64_t{0}, ~uint32_t{0});
}

TEST_P(translation, CountsOnTheSentinelsAndNotOnTheRegionOfTheProcess) {
    user.limits();
    const uint64_t new_end = region().end() - pages(1);
    machine.writable_area().writer().u64(area_offset::chunk(1) + area_offset::pa, new_end);
    EXPECT_EQ(user.limits().end, region().dma(new_end));
    EXPECT_EQ(user.dies("to_dma " + std::to_string(new_end + 1)), ended_by(SIGABRT));
}

INSTANTIATE_TEST_SUITE_P(, translation, testing::ValuesIn(all_worlds()), world_name());

struct region_case {
    const char* region;
    uint64_t pa;
    uint32_t dma;
    dma_limits limits;
};

TEST(a_region, IsSeenFrom512MiBOnWhenItOrItsEndIsOutOf32Bits) {
    const std::vector<region_case> cases{
        {"200000000-23fffffff", 0x200000000, 0x20000000, {0, 0x20000000, 0x60000000}},
        // Across 4 GiB.
        {"f0000000-10fffffff", 0xf0000000, 0x20000000, {0, 0x20000000, 0x40000000}},
        // The first byte after it is at 4 GiB.
        {"c0000000-ffffffff", 0xc0000000, 0x20000000, {0, 0x20000000, 0x60000000}},
        {"c0000000-ffffefff", 0xc0000000, 0xc0000000, {0, 0xc0000000, 0xfffff000}},
        {"1000-1fff", 0x1000, 0x1000, {0, 0x1000, 0x2000}},
        // DMA addresses wrap around in a region of nearly 4 GiB.
        {"200000000-2efffffff", 0x2e0000010, 0x10, {0, 0x20000000, 0x10000000}},
        {"2ff000000-33effffff", 0x300000000, 0x21000000, {0, 0x20000000, 0x60000000}},
    };
    for (const region_case& one : cases) {
        sandbox machine(low, {"--region", one.region});
        client user = machine.start();
        EXPECT_EQ(user.limits(), one.limits) << one.region;
        EXPECT_EQ(user.to_dma(one.pa), one.dma) << one.region;
    }
}

} // namespace

} // namespace translation_test
