#include "region_fixture.hpp"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace mapping_test {

using namespace tarvo::literals;
using tarvo::error_code;

namespace {

/// Whether the page that starts there is mapped in this process. msync reports ENOMEM where it is
/// not.
bool is_mapped(const void* address) {
    return ::msync(const_cast<void*>(address), 1, MS_ASYNC) == 0;
}

} // namespace

class mappings : public region_fixture {
  protected:
    const tarvo::chunk chunk = allocated("ring", 64_KiB);
};

TEST_F(mappings, ShowOneMemory) {
    const auto writer = tarvo::map(chunk);
    const auto reader = tarvo::map_read_only(chunk);
    ASSERT_TRUE(writer && reader);
    EXPECT_EQ(writer->size(), 65536U);
    EXPECT_EQ(writer->dma(), chunk.dma());
    writer->span().back() = std::byte{7};
    EXPECT_EQ(reader->span().back(), std::byte{7});
    EXPECT_NE(writer->span().data(), reader->span().data());
}

TEST_F(mappings, ShowTheMemoryThatTheCCallShows) {
    const auto mine = tarvo::map(chunk);
    ASSERT_TRUE(mine);
    auto* by_c = static_cast<char*>(tarvo_map("ring", true, 0, 0));
    std::strcpy(by_c, "seen");
    EXPECT_EQ(std::memcmp(mine->span().data(), "seen", 5), 0);
    EXPECT_EQ(tarvo_unmap("ring", by_c, 0), 0);
}

TEST_F(mappings, OfWindowsKnowTheirOwnDmaAddress) {
    const tarvo::bytes page = tarvo::page_size();
    const auto all = tarvo::map(chunk);
    const auto rest = tarvo::map(chunk, page);
    const auto one = tarvo::map(chunk, page * 2, 10_B);
    ASSERT_TRUE(all && rest && one);
    EXPECT_EQ(rest->size(), 65536 - page.count());
    EXPECT_EQ(one->size(), 10U);
    EXPECT_EQ(one->dma(), chunk.dma() + page * 2);
    all->span()[page.count() * 2 + 9] = std::byte{9};
    EXPECT_EQ(one->span()[9], std::byte{9});
    EXPECT_EQ(rest->span()[page.count() + 9], std::byte{9});
}

TEST_F(mappings, OutsideTheChunkOrWithinAPageAreRefused) {
    const tarvo::bytes far(~uint64_t{0} - 4095);
    const std::pair<tarvo::bytes, tarvo::bytes> windows[] = {
        {64_KiB, 0_B}, {0_B, 64_KiB + 1_B}, {60_KiB, 8_KiB}, {4_GiB, 4_KiB}, {4_KiB, 4_GiB},
        {far, 8_KiB},  {1_B, 4_KiB},        {1_B, 0_B},      {0_B, far},     {4_GiB, 0_B}};
    for (const auto& [offset, size] : windows) {
        EXPECT_TRUE(fails_with(tarvo::map(chunk, offset, size), error_code::bad_window, "'ring'"))
            << offset.count() << " " << size.count();
    }
}

TEST_F(mappings, EndWithTheirObject) {
    const std::byte* address = nullptr;
    {
        const auto memory = tarvo::map(chunk);
        ASSERT_TRUE(memory);
        address = memory->span().data();
        EXPECT_TRUE(is_mapped(address));
        EXPECT_TRUE(is_mapped(address + 65536 - tarvo::page_size().count()));
    }
    EXPECT_FALSE(is_mapped(address));
    EXPECT_FALSE(is_mapped(address + 65536 - tarvo::page_size().count()));
}

TEST_F(mappings, AreMovedAndNotShared) {
    tarvo::mapping first = *tarvo::map(chunk);
    const std::byte* first_address = first.span().data();
    tarvo::mapping second = std::move(first);
    EXPECT_EQ(second.span().data(), first_address);
    tarvo::mapping third = *tarvo::map(chunk);
    third = std::move(second);
    EXPECT_EQ(third.span().data(), first_address);
    EXPECT_TRUE(is_mapped(first_address));
    third = tarvo::mapping();
    EXPECT_FALSE(is_mapped(first_address));
    EXPECT_TRUE(third.span().empty());
}

TEST_F(mappings, EndWithoutHarmWhenTheChunkIsGone) {
    const std::byte* address = nullptr;
    {
        const auto memory = tarvo::map(chunk);
        ASSERT_TRUE(memory);
        address = memory->span().data();
        ASSERT_TRUE(tarvo::free_chunk(chunk));
        memory->span()[0] = std::byte{1};
    }
    EXPECT_FALSE(is_mapped(address));
}

TEST_F(mappings, AreNeverOfAnotherChunkThatHasTakenTheName) {
    ASSERT_TRUE(tarvo::free_chunk(chunk));
    EXPECT_TRUE(fails_with(tarvo::map(chunk), error_code::not_found, "'ring'"));
    allocated("other", 4_KiB);
    const tarvo::chunk now = allocated("ring", 64_KiB);
    EXPECT_TRUE(fails_with(tarvo::map(chunk), error_code::changed, "look it up again"));
    EXPECT_TRUE(tarvo::map(now));
}

TEST_F(mappings, ForReadingOnlyFaultOnWriting) {
    const auto memory = tarvo::map_read_only(chunk);
    ASSERT_TRUE(memory);
    auto* byte = reinterpret_cast<volatile char*>(const_cast<std::byte*>(memory->span().data()));
    EXPECT_EXIT(*byte = 1, testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(mappings, GiveNoObjectThatIsAlignedToMoreThanItsPage) {
    struct alignas(8192) large {
        std::byte first;
    };
    const tarvo::chunk odd = allocated("odd", 12_KiB);
    // Of an odd number of pages and beside each other, so that every other one starts on an odd
    // page.
    std::vector<tarvo::mapping> all;
    for (int count = 0; count < 8; ++count) {
        all.push_back(*tarvo::map(odd));
        const auto first = all.back().object<large>();
        const auto second = all.back().object<large>(4_KiB);
        EXPECT_NE(first.has_value(), second.has_value());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(first ? *first : *second) % 8192, 0U);
    }
}

TEST_F(mappings, GiveTypedAccessOnlyWhereItIsWithinAndAligned) {
    const auto memory = tarvo::map(allocated("page", 4_KiB));
    ASSERT_TRUE(memory);
    const auto last = memory->object<uint64_t>(4088_B);
    ASSERT_TRUE(last);
    **last = 0x0102030405060708;
    EXPECT_EQ(memory->span()[4095], std::byte{1});
    EXPECT_TRUE(fails_with(memory->object<uint64_t>(4089_B), error_code::bad_window, "4089"));
    EXPECT_TRUE(fails_with(memory->object<uint64_t>(4096_B), error_code::bad_window, "4096"));
    EXPECT_TRUE(fails_with(memory->object<uint32_t>(2_B), error_code::bad_window, "of 4"));
    EXPECT_TRUE(fails_with(memory->object<char>(tarvo::bytes(~uint64_t{0})), error_code::bad_window,
                           "4096"));
}

} // namespace mapping_test
