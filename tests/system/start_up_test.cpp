#include "sandbox.hpp"

#include <gtest/gtest.h>

namespace {

class start_up : public testing::TestWithParam<world> {};

TEST_P(start_up, BuildsAnAreaThatHoldsTheTwoSentinels) {
    sandbox machine(GetParam());
    client user = machine.start();
    EXPECT_EQ(user.limits(), (dma_limits{0, GetParam().start_dma, GetParam().end_dma()}));
    const area_file area = machine.area();
    EXPECT_EQ(area_breaches(area.view()), std::vector<std::string>{});
    const auto chunks = area.view().chunks();
    ASSERT_EQ(chunks.size(), 2U);
    EXPECT_EQ(chunks[0].name, "__HEAD");
    EXPECT_EQ(chunks[0].pa, GetParam().start);
    EXPECT_EQ(chunks[1].name, "__TAIL");
    EXPECT_EQ(chunks[1].pa, GetParam().end());
    EXPECT_EQ(user.error_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, start_up, testing::ValuesIn(all_worlds()), world_name());

} // namespace
