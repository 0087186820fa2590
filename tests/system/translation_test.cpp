#include "sandbox.hpp"

#include <csignal>
#include <gtest/gtest.h>

namespace translation_test {

namespace {

const std::string bad_dma =
    "tarvo-client: tarvo:LINE: uint64_t tarvo_dma_to_pa(uint32_t): Assertion "
    "`res >= dma_chunk_head->pa && res <= dma_chunk_tail->pa' failed.\n";
const std::string bad_pa =
    "tarvo-client: tarvo:LINE: uint32_t tarvo_pa_to_dma(uint64_t): Assertion "
    "`pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa' failed.\n";

void expect_death(sandbox& machine, const std::string& command, const std::string& said) {
    client user = machine.start();
    EXPECT_EQ(user.dies(command), ended_by(SIGABRT)) << command;
    EXPECT_EQ(without_lines(user.error_text()), said) << command;
}

class translation : public testing::TestWithParam<world> {};

TEST_P(translation, AcceptsTheWholeRegionItsEndIncluded) {
    const world& region = GetParam();
    sandbox machine(region);
    client user = machine.start();
    for (const uint64_t offset :
         {uint64_t{0}, uint64_t{1}, pages(1), region.bytes / 2, region.bytes - 1, region.bytes}) {
        const uint64_t pa = region.start + offset;
        EXPECT_EQ(user.to_dma(pa), region.dma(pa)) << offset;
        EXPECT_EQ(user.to_pa(region.dma(pa)), pa) << offset;
    }
    EXPECT_EQ(user.limits(), (dma_limits{0, region.start_dma, region.end_dma()}));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(translation, OfOneByteAfterTheEndEndsTheProcess) {
    const world& region = GetParam();
    sandbox machine(region);
    expect_death(machine, "to_dma " + std::to_string(region.end() + 1), bad_pa);
    expect_death(machine, "to_pa " + std::to_string(region.end_dma() + 1), bad_dma);
}

TEST_P(translation, OfOneByteBeforeTheStartEndsTheProcess) {
    const world& region = GetParam();
    sandbox machine(region);
    expect_death(machine, "to_dma " + std::to_string(region.start - 1), bad_pa);
    expect_death(machine, "to_pa " + std::to_string(region.start_dma - 1), bad_dma);
}

TEST_P(translation, OfTheExtremesEndsTheProcess) {
    sandbox machine(GetParam());
    expect_death(machine, "to_dma 0", bad_pa);
    expect_death(machine, "to_dma 0xffffffffffffffff", bad_pa);
    expect_death(machine, "to_pa 0", bad_dma);
    expect_death(machine, "to_pa 0xffffffff", bad_dma);
}

TEST_P(translation, CountsOnTheSentinelsAndNotOnTheRegionOfTheProcess) {
    sandbox machine(GetParam());
    client user = machine.start();
    user.limits();
    const uint64_t new_end = GetParam().end() - pages(1);
    machine.writable_area().writer().u64(area_offset::chunk(1) + area_offset::pa, new_end);
    EXPECT_EQ(user.limits().end, GetParam().dma(new_end));
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

TEST(the_overhead, IsTheAreasSizeAndNeedsNoStart) {
    sandbox machine(low, {"--without", "proc"});
    client user = machine.start();
    EXPECT_EQ(user.call("overhead"), "70131712");
    EXPECT_EQ(user.call("pretend_page_bytes 65536"), "done");
    EXPECT_EQ(user.call("overhead"), "70189056");
    EXPECT_EQ(user.call("calls"), "");
    EXPECT_EQ(user.error_text(), "");
    EXPECT_EQ(mode_of(machine.hardware_area()), "missing");
}

} // namespace

} // namespace translation_test
