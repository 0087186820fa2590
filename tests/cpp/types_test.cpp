// What the compiler has to accept and to refuse, and what needs no region.

#include "tarvo.hpp"

#include <concepts>
#include <gtest/gtest.h>
#include <memory>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace types_test {

using namespace tarvo::literals;

namespace {

template <typename T>
concept move_only = std::is_nothrow_move_constructible_v<T> && !std::is_copy_constructible_v<T> &&
                    !std::is_copy_assignable_v<T>;

template <typename A, typename B>
concept addable = requires(A a, B b) {
    a + b;
};
template <typename A, typename B>
concept comparable = requires(A a, B b) {
    a == b;
};
template <typename A, typename B>
concept convertible = std::is_convertible_v<A, B> || std::is_constructible_v<B, A>;

static_assert(move_only<tarvo::mapping>);
static_assert(move_only<tarvo::read_only_mapping>);
static_assert(move_only<tarvo::whole_region>);
static_assert(move_only<tarvo::listing>);
static_assert(move_only<tarvo::result<tarvo::mapping>>);
static_assert(std::is_nothrow_move_assignable_v<tarvo::mapping>);
static_assert(std::is_nothrow_move_assignable_v<tarvo::whole_region>);
static_assert(std::copyable<tarvo::chunk> && std::copyable<tarvo::device>);
static_assert(std::copyable<tarvo::listed_chunk> && std::copyable<tarvo::listed_device>);

static_assert(
    std::is_same_v<decltype(std::declval<tarvo::mapping>().span()), std::span<std::byte>>);
static_assert(std::is_same_v<decltype(std::declval<tarvo::read_only_mapping>().span()),
                             std::span<const std::byte>>);
static_assert(!convertible<tarvo::read_only_mapping, tarvo::mapping>);
static_assert(std::is_same_v<decltype(std::declval<tarvo::read_only_mapping>().object<int>()),
                             tarvo::result<const int*>>);

/// Sizes and addresses do not mix, with each other or with numbers.
static_assert(!convertible<tarvo::dma_address, tarvo::physical_address>);
static_assert(!convertible<tarvo::physical_address, tarvo::dma_address>);
static_assert(!convertible<tarvo::bytes, tarvo::dma_address>);
static_assert(!std::is_convertible_v<uint32_t, tarvo::dma_address>);
static_assert(!std::is_convertible_v<uint64_t, tarvo::bytes>);
static_assert(!convertible<tarvo::dma_address, uint32_t>);
static_assert(!convertible<tarvo::physical_address, void*>);
static_assert(!comparable<tarvo::dma_address, tarvo::physical_address>);
static_assert(!comparable<tarvo::dma_address, uint32_t>);
static_assert(addable<tarvo::dma_address, tarvo::bytes>);
static_assert(!addable<tarvo::dma_address, tarvo::dma_address>);
static_assert(!addable<tarvo::dma_address, int>);
static_assert(!addable<tarvo::bytes, int>);
static_assert(sizeof(tarvo::dma_address) == 4 && sizeof(tarvo::physical_address) == 8);

static_assert(64_KiB == tarvo::bytes(65536) && 2_MiB == 1024_KiB * 2 && 1_GiB == 1024_MiB);
static_assert(1_KiB + 1_B == 1025_B && 1_KiB - 1_B == 1023_B && 1_B < 1_KiB);
static_assert(tarvo::dma_address(0xfffff000) + 8_KiB == tarvo::dma_address(0x1000));
static_assert(tarvo::dma_address(0x1000) - tarvo::dma_address(0xfffff000) == 8_KiB);
static_assert(tarvo::physical_address(0x100000000) - tarvo::physical_address(1) ==
              tarvo::bytes(0xffffffff));

static_assert(std::ranges::input_range<tarvo::chunk_range>);
static_assert(std::ranges::view<tarvo::chunk_range>);
static_assert(std::ranges::input_range<tarvo::device_range>);
static_assert(std::is_same_v<std::ranges::range_value_t<tarvo::chunk_range>, tarvo::listed_chunk>);
static_assert(std::derived_from<tarvo::listed_chunk, tarvo::chunk>);
static_assert(std::derived_from<tarvo::listed_device, tarvo::device>);

/// Programs keep a code in an int, with 0 for success: no error may look like that.
static_assert(static_cast<int>(tarvo::error_code::bad_name) == 1);
static_assert(static_cast<int>(tarvo::error_code::damaged) == 17);

/// Nothing throws.
constexpr std::string_view no_text;
static_assert(noexcept(tarvo::allocate(no_text, 1_B, no_text)) && noexcept(tarvo::map({})));
static_assert(noexcept(tarvo::free_chunk(no_text)) && noexcept(tarvo::listing::open()));
static_assert(noexcept(tarvo::register_device({})) && noexcept(tarvo::whole_region::map()));

tarvo::error some_error() {
    return {tarvo::error_code::not_found, "no %s", "such thing"};
}

} // namespace

TEST(a_result, HoldsItsValue) {
    tarvo::result<std::string> held(std::string("value"));
    EXPECT_TRUE(held);
    EXPECT_EQ(*held, "value");
    EXPECT_EQ(held->size(), 5U);
    EXPECT_EQ(std::move(held).value_or("other"), "value");
}

TEST(a_result, HoldsItsError) {
    const tarvo::result<std::string> held(some_error());
    EXPECT_FALSE(held);
    EXPECT_EQ(held.error().code(), tarvo::error_code::not_found);
    EXPECT_STREQ(held.error().message(), "no such thing");
    EXPECT_EQ(tarvo::result<std::string>(some_error()).value_or("other"), "other");
}

TEST(a_result, GivesAMoveOnlyValueAway) {
    tarvo::result<std::unique_ptr<int>> owner(std::make_unique<int>(7));
    const std::unique_ptr<int> taken = *std::move(owner);
    EXPECT_EQ(*taken, 7);
}

TEST(a_result, GoesOnOnlyWithAValue) {
    const auto half = [](int number) -> tarvo::result<int> {
        if (number % 2 != 0) {
            return some_error();
        }
        return number / 2;
    };
    EXPECT_EQ(*tarvo::result<int>(8).and_then(half).and_then(half), 2);
    EXPECT_FALSE(tarvo::result<int>(6).and_then(half).and_then(half));
    EXPECT_FALSE(tarvo::result<int>(some_error()).and_then(half));
}

TEST(a_result, OfNothingIsSuccessOrAnError) {
    EXPECT_TRUE(tarvo::result<void>());
    EXPECT_STREQ(tarvo::result<void>(some_error()).error().message(), "no such thing");
}

TEST(a_result_DeathTest, EndsTheProcessWithTheErrorWhenTheMissingValueIsUsed) {
    const tarvo::result<int> none(some_error());
    EXPECT_EXIT((void)*none, testing::KilledBySignal(SIGABRT),
                "tarvo: the value of a failed result was used: no such thing");
    EXPECT_EXIT((void)tarvo::result<int>(1).error(), testing::KilledBySignal(SIGABRT),
                "tarvo: the error of a good result was used");
    EXPECT_EXIT((void)tarvo::result<void>().error(), testing::KilledBySignal(SIGABRT),
                "tarvo: the error of a good result was used");
}

TEST(an_error, CutsATextThatIsTooLong) {
    const std::string text(1000, 'x');
    const tarvo::error cut(tarvo::error_code::refused, "%s", text.c_str());
    EXPECT_EQ(cut.message(), text.substr(0, 255));
}

TEST(sizes, AreRoundedUpToPages) {
    const tarvo::bytes page = tarvo::page_size();
    EXPECT_EQ(tarvo::rounded_to_pages(1_B), page);
    EXPECT_EQ(tarvo::rounded_to_pages(page), page);
    EXPECT_EQ(tarvo::rounded_to_pages(page + 1_B), page * 2);
}

TEST(a_device, IsReadFromItsAddressAndWrittenAsIt) {
    const auto device = tarvo::device::parse("0001:3a:1f.7");
    ASSERT_TRUE(device);
    EXPECT_EQ(device->domain(), 1U);
    EXPECT_EQ(device->bus(), 0x3aU);
    EXPECT_EQ(device->slot(), 0x1fU);
    EXPECT_EQ(device->function(), 7U);
    EXPECT_EQ(device->devfn(), 0xffU);
    EXPECT_STREQ(device->text().c_str(), "0001:3a:1f.7");
    EXPECT_EQ(*device, *tarvo::device::at(1, 0x3a, 0x1f, 7));
    EXPECT_STREQ(tarvo::device::parse("ffffffff:fffffff0:0.0")->text().c_str(),
                 "ffffffff:fffffff0:00.0");
    EXPECT_EQ(*tarvo::device::parse("03:00.1"), *tarvo::device::at(0, 3, 0, 1));
}

TEST(a_device, IsRefusedWhereNoPciDeviceHasTheAddress) {
    for (const char* text : {"", "3", ":03:00.0", "0000:03:00", "0000:03:00.", "0000:03:00.0 ",
                             " 0000:03:00.0", "0000:03:00.8", "0000:03:20.0", "0000:-3:00.0",
                             "100000000:03:00.0", "0000:03.00.0", "0000:0g:00.0", "0x0:03:00.0"}) {
        const auto device = tarvo::device::parse(text);
        ASSERT_FALSE(device) << text;
        EXPECT_EQ(device.error().code(), tarvo::error_code::bad_device);
    }
    EXPECT_FALSE(tarvo::device::at(0, 3, 32, 0));
    EXPECT_FALSE(tarvo::device::at(0, 3, 0, 8));
}

TEST(a_listings_line, IsTakenApartByItsColumns) {
    char line[256];
    (void)std::snprintf(line, sizeof line, "%3d %-60s %-110s 0x%012llx %9d", 12345, " a b  0x1 ",
                        "who  was 7", 0x123456789abULL, -4096);
    tarvo::detail::chunk_line fields;
    ASSERT_TRUE(fields.read(line));
    EXPECT_EQ(fields.element, 12345);
    EXPECT_EQ(fields.name, " a b  0x1");
    EXPECT_EQ(fields.creator, "who  was 7");
    EXPECT_EQ(fields.pa, 0x123456789abU);
    EXPECT_EQ(fields.size, -4096);
}

TEST(a_listings_line, IsRefusedWhereverItIsCutOrWidened) {
    char line[256];
    (void)std::snprintf(line, sizeof line, "%3d %-60s %-110s 0x%012llx %9d", 2, "rx_ring", "me",
                        0x1000ULL, 4096);
    const std::string good(line);
    tarvo::detail::chunk_line fields;
    ASSERT_TRUE(fields.read(good));
    for (size_t end = 0; end < good.size() - 4; ++end) {
        EXPECT_FALSE(fields.read(good.substr(0, end))) << end;
    }
    for (size_t at = 5; at < 170; ++at) {
        std::string wider = good;
        wider.insert(at, "x");
        EXPECT_FALSE(fields.read(wider)) << at;
    }
    EXPECT_FALSE(fields.read(std::string(300, ' ')));
    EXPECT_FALSE(fields.read(std::string(300, 'x')));
}

} // namespace types_test
