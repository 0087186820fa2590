#include "region_fixture.hpp"

#include <cstdint>
#include <limits>

namespace region_test {

using namespace tarvo::literals;
using tarvo::dma_address;
using tarvo::error_code;
using tarvo::physical_address;

class whole : public region_fixture {};

TEST_F(whole, RegionLiesWhereTheWorldHasIt) {
    const auto region = tarvo::get_limits();
    ASSERT_TRUE(region);
    EXPECT_EQ(region->start.value(), world_here().start_dma);
    EXPECT_EQ(region->physical_start.value(), world_here().start);
    EXPECT_EQ(region->size.count(), world_here().bytes);
    EXPECT_EQ(tarvo::get_overhead().count(), tarvo_get_overhead());
}

TEST_F(whole, RegionIsTranslatedBothWaysAndNothingElse) {
    const world& here = world_here();
    for (const uint64_t pa : {here.start, here.start + 1, here.end() - 1, here.end()}) {
        const auto dma = tarvo::pa_to_dma(physical_address(pa));
        ASSERT_TRUE(dma);
        EXPECT_EQ(dma->value(), here.dma(pa));
        EXPECT_EQ(*tarvo::dma_to_pa(*dma), physical_address(pa));
    }
    for (const uint64_t pa :
         {uint64_t{0}, here.start - 1, here.end() + 1, here.start + 0x100000000, ~uint64_t{0}}) {
        EXPECT_TRUE(fails_with(tarvo::pa_to_dma(physical_address(pa)), error_code::bad_address,
                               "is not in the region"));
    }
    for (const uint32_t dma : {0U, here.start_dma - 1, here.end_dma() + 1, ~0U}) {
        EXPECT_TRUE(fails_with(tarvo::dma_to_pa(dma_address(dma)), error_code::bad_address,
                               "is not in the region"));
    }
}

TEST_F(whole, RegionIsMappedOnceAndCounted) {
    const tarvo::chunk chunk = allocated("ring", 4_KiB);
    auto first = tarvo::whole_region::map();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->span().size(), world_here().bytes);
    {
        const auto second = tarvo::whole_region::map();
        ASSERT_TRUE(second);
        EXPECT_EQ(second->span().data(), first->span().data());
    }
    const auto memory = tarvo::map(chunk);
    ASSERT_TRUE(memory);
    const auto offset = static_cast<size_t>((chunk.dma() - first->where().start).count());
    first->span()[offset] = std::byte{0x5a};
    EXPECT_EQ(memory->span()[0], std::byte{0x5a});

    const tarvo::whole_region moved = *std::move(first);
    EXPECT_TRUE(first->span().empty());
    EXPECT_EQ(moved.span()[offset], std::byte{0x5a});
}

/// Run in a world that has no region.
TEST(without_a_region, EveryCallSaysSo) {
    constexpr auto code = error_code::not_started;
    constexpr const char* reported = "cannot start";
    EXPECT_TRUE(fails_with(tarvo::get_limits(), code, reported));
    EXPECT_TRUE(fails_with(tarvo::dma_to_pa(dma_address(1)), code, reported));
    EXPECT_TRUE(fails_with(tarvo::pa_to_dma(physical_address(1)), code, reported));
    EXPECT_TRUE(fails_with(tarvo::whole_region::map(), code, reported));
    EXPECT_TRUE(fails_with(tarvo::listing::open(), code, reported));
    EXPECT_TRUE(fails_with(tarvo::allocate("ring", 4_KiB, "test"), code, reported));
    EXPECT_TRUE(fails_with(tarvo::find_chunk("ring"), code, reported));
    EXPECT_TRUE(fails_with(tarvo::find_chunk(dma_address(1)), code, reported));
    EXPECT_TRUE(fails_with(tarvo::free_chunk("ring"), code, reported));
    const tarvo::chunk chunk("ring", dma_address(1), 4_KiB);
    EXPECT_TRUE(fails_with(tarvo::free_chunk(chunk), code, reported));
    EXPECT_TRUE(fails_with(tarvo::map(chunk), code, reported));
    EXPECT_TRUE(fails_with(tarvo::register_device({}), code, reported));
    EXPECT_TRUE(fails_with(tarvo::unregister_device({}), code, reported));
    EXPECT_TRUE(fails_with(tarvo::iommu_map({}, tarvo::access::read), code, reported));
    EXPECT_TRUE(fails_with(tarvo::iommu_unmap({}), code, reported));
}

/// Run in a world whose region no single request can describe.
TEST(a_region_of_2_gib, IsNotMappedForADeviceAtOnce) {
    EXPECT_TRUE(
        fails_with(tarvo::iommu_map({}, tarvo::access::read), error_code::bad_size, "0x80000000"));
    EXPECT_TRUE(fails_with(tarvo::iommu_unmap({}), error_code::bad_size, "0x80000000"));
}

TEST(a_region_of_2_gib, IsOneChunkAtMostThatADeviceCanHave) {
    const auto largest = tarvo::allocate("largest", tarvo::largest_chunk, "test");
    ASSERT_TRUE(largest) << largest.error().message();
    EXPECT_TRUE(tarvo::register_device({}));
    EXPECT_TRUE(tarvo::unregister_device({}));
    EXPECT_TRUE(tarvo::free_chunk(*largest));
}

/// Run in a world with a larger one.
TEST(a_region_of_3_gib, HasAChunkThatWouldEndWhoRegistersADevice) {
    ASSERT_NE(tarvo_alloc_func("too_large", size_t{0x80001000}, "test"), 0U);
    EXPECT_TRUE(fails_with(tarvo::register_device({}), error_code::bad_size, "'too_large'"));
    EXPECT_TRUE(tarvo::free_chunk("too_large"));
    EXPECT_TRUE(tarvo::register_device({}));
    EXPECT_TRUE(tarvo::unregister_device({}));
}

} // namespace region_test
