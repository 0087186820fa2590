#include "region_fixture.hpp"

#include <cstring>
#include <string>

namespace chunk_test {

using namespace tarvo::literals;
using tarvo::error_code;

class chunks : public region_fixture {};

TEST_F(chunks, AreAllocatedFromTheRegionsStartOn) {
    const tarvo::chunk first = allocated("first", 1_B);
    const tarvo::chunk second = allocated("second", 64_KiB);
    const tarvo::dma_address start(world_here().start_dma);
    EXPECT_EQ(first, tarvo::chunk("first", start, tarvo::page_size()));
    EXPECT_EQ(second, tarvo::chunk("second", start + tarvo::page_size(), 64_KiB));
}

TEST_F(chunks, AreSharedByNameAndSize) {
    const tarvo::chunk mine = allocated("shared", 64_KiB - 1_B);
    EXPECT_EQ(allocated("shared", 64_KiB), mine);
    EXPECT_EQ(chunks_now().size(), 1U);
}

TEST_F(chunks, OfOneNameAndAnotherSizeAreRefused) {
    allocated("shared", 64_KiB);
    EXPECT_TRUE(fails_with(tarvo::allocate("shared", 128_KiB, "test"), error_code::size_mismatch,
                           "'shared' exists with 65536 bytes, not 131072"));
    EXPECT_EQ(chunks_now().size(), 1U);
}

TEST_F(chunks, AreNewAndZeroAfterAFree) {
    const tarvo::chunk before = allocated("ring", 64_KiB);
    {
        const auto memory = tarvo::map(before);
        ASSERT_TRUE(memory);
        std::ranges::fill(memory->span(), std::byte{0xa5});
    }
    ASSERT_TRUE(tarvo::free_chunk(before));
    const auto memory = tarvo::map_read_only(allocated("ring", 64_KiB));
    ASSERT_TRUE(memory);
    EXPECT_TRUE(std::ranges::all_of(memory->span(), [](std::byte b) { return b == std::byte{}; }));
}

TEST_F(chunks, WithNamesThatEndTheProcessAreRefused) {
    const std::string long_name(50, 'n');
    for (const std::string& name :
         {std::string(), long_name, long_name + long_name, std::string("__HEAD"),
          std::string("__TAIL"), std::string("a\0b", 3), std::string("blank ")}) {
        EXPECT_TRUE(fails_with(tarvo::allocate(name, 4_KiB, "test"), error_code::bad_name, "name"));
        EXPECT_TRUE(fails_with(tarvo::free_chunk(name), error_code::bad_name, "name"));
        EXPECT_TRUE(fails_with(tarvo::find_chunk(name), error_code::bad_name, "name"));
    }
    EXPECT_EQ(chunks_now().size(), 0U);
}

TEST_F(chunks, CanHaveTheLongestNameAndAnyBytesInIt) {
    // In a command to the driver of a CMA region a name is a word.
    const std::string name =
        world_here().cma ? std::string(49, 'n') : " \t\x01\xff 0x1" + std::string(40, 'n') + "\n";
    ASSERT_EQ(name.size(), 49U);
    const tarvo::chunk mine = allocated(name, 4_KiB);
    EXPECT_EQ(mine.name(), name);
    const auto found = tarvo::find_chunk(name);
    ASSERT_TRUE(found) << found.error().message();
    EXPECT_EQ(*found, mine);
}

TEST_F(chunks, WithSizesThatEndTheProcessAreRefused) {
    for (const tarvo::bytes size : {0_B, 4_GiB, 4_GiB - 1_B, 4_GiB - 4_KiB + 1_B, 16_GiB,
                                    2_GiB + 1_B, tarvo::bytes(~uint64_t{0})}) {
        EXPECT_TRUE(fails_with(tarvo::allocate("large", size, "test"), error_code::bad_size,
                               std::to_string(size.count())));
    }
}

TEST_F(chunks, ThatDoNotFitAreRefused) {
    EXPECT_TRUE(
        fails_with(tarvo::allocate("large", 2_GiB, "test"), error_code::no_room, "'large'"));
}

TEST_F(chunks, NeedACreator) {
    EXPECT_TRUE(fails_with(tarvo::allocate("ring", 4_KiB, ""), error_code::bad_creator, "empty"));
    EXPECT_TRUE(fails_with(tarvo::allocate("ring", 4_KiB, std::string_view("a\0b", 3)),
                           error_code::bad_creator, "zero byte"));
}

TEST_F(chunks, RecordOfALongCreatorWhatTheCCallRecords) {
    for (const size_t length : {99U, 100U, 200U, 201U, 5000U}) {
        std::string creator;
        for (size_t i = 0; i < length; ++i) {
            creator.push_back(static_cast<char>('!' + i % 90));
        }
        ASSERT_TRUE(tarvo::allocate("by_hpp", 4_KiB, creator));
        ASSERT_NE(tarvo_alloc_func("by_c", 4096, creator.c_str()), 0U);
        const auto all = chunks_now();
        ASSERT_EQ(all.size(), 2U);
        EXPECT_EQ(all[0].creator(), all[1].creator()) << length;
        EXPECT_GE(all[0].creator().size(), 99U);
        TearDown();
    }
}

TEST_F(chunks, AreFoundByNameWithAllThatIsKnown) {
    const tarvo::chunk mine = allocated("rx_ring", 64_KiB);
    const auto found = tarvo::find_chunk("rx_ring");
    ASSERT_TRUE(found);
    EXPECT_EQ(*found, mine);
    EXPECT_EQ(found->creator(), "test");
    EXPECT_EQ(found->physical(), tarvo::physical_address(world_here().start));
    EXPECT_TRUE(fails_with(tarvo::find_chunk("tx_ring"), error_code::not_found,
                           "no chunk is called 'tx_ring'"));
}

TEST_F(chunks, AreFoundByAnyAddressInThem) {
    const tarvo::chunk mine = allocated("rx_ring", 64_KiB);
    EXPECT_EQ(*tarvo::find_chunk(mine.dma()), mine);
    EXPECT_EQ(*tarvo::find_chunk(mine.dma() + 64_KiB + tarvo::bytes(~uint64_t{0})), mine);
    EXPECT_TRUE(fails_with(tarvo::find_chunk(mine.dma() + 64_KiB), error_code::not_found, "0x"));
    EXPECT_TRUE(fails_with(tarvo::find_chunk(tarvo::dma_address(0xfffffff0)),
                           error_code::bad_address, "0xfffffff0"));
}

TEST_F(chunks, AreFreedOnce) {
    const tarvo::chunk mine = allocated("ring", 4_KiB);
    EXPECT_TRUE(tarvo::free_chunk(mine));
    EXPECT_TRUE(fails_with(tarvo::free_chunk(mine), error_code::not_found, "'ring'"));
    EXPECT_TRUE(fails_with(tarvo::free_chunk("ring"), error_code::not_found, "'ring'"));
}

TEST_F(chunks, AreNotFreedWhenTheNameIsAnotherChunksByNow) {
    const tarvo::chunk before = allocated("ring", 4_KiB);
    ASSERT_TRUE(tarvo::free_chunk("ring"));
    const tarvo::chunk now = allocated("ring", 8_KiB);
    EXPECT_TRUE(fails_with(tarvo::free_chunk(before), error_code::changed, "of 8192 bytes at"));
    EXPECT_TRUE(tarvo::free_chunk(now));
}

TEST_F(chunks, OfOneNameMadeByCCallsAreFreedLowestFirst) {
    ASSERT_NE(tarvo_alloc_func("twice", 4096, "test"), 0U);
    if (world_here().cma) {
        // The driver of a CMA region has no second memory of one name.
        EXPECT_EQ(tarvo_alloc_func("twice", 8192, "test"), 0U);
        return;
    }
    ASSERT_NE(tarvo_alloc_func("twice", 8192, "test"), 0U);
    EXPECT_EQ(tarvo::find_chunk("twice")->size(), 4_KiB);
    EXPECT_TRUE(tarvo::free_chunk("twice"));
    EXPECT_EQ(tarvo::find_chunk("twice")->size(), 8_KiB);
}

TEST_F(chunks, StayWhenADeviceRefusesToLetThemGo) {
    // The run's rules: this device accepts every mapping and no unmapping.
    const tarvo::device stubborn = device(0x0e, 0, 1);
    const tarvo::chunk mine = allocated("ring", 4_KiB);
    ASSERT_TRUE(tarvo::register_device(stubborn));
    EXPECT_TRUE(fails_with(tarvo::free_chunk(mine), error_code::refused, "'ring'"));
    if (!world_here().cma) {
        EXPECT_EQ(*tarvo::find_chunk("ring"), mine);
    }
    ASSERT_TRUE(tarvo::unregister_device(stubborn));
    if (world_here().cma) {
        // The driver has its memory back, and would refuse to take it again.
        ASSERT_NE(get_cma_allocation("ring", 4096), ~uint64_t{0});
    }
}

} // namespace chunk_test
