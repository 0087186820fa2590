#include "common/quantities.hpp"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace quantities_test {

namespace {

TEST(quantities, PhysicalAddressesHaveTenDigitsAndDmaAddressesEight) {
    EXPECT_EQ(pa_text(0), "0x0000000000");
    EXPECT_EQ(pa_text(0x80000000), "0x0080000000");
    EXPECT_EQ(pa_text(0x12345678901), "0x12345678901");
    EXPECT_EQ(dma_text(0), "0x00000000");
    EXPECT_EQ(dma_text(0xfffff000), "0xfffff000");
    EXPECT_EQ(pa_range(0x200000000, 0x200001000), "0x0200000000-0x0200000fff");
}

TEST(quantities, SizesAreExact) {
    EXPECT_EQ(size_text(0), "0 bytes");
    EXPECT_EQ(size_text(1), "1 byte");
    EXPECT_EQ(size_text(1023), "1023 bytes");
    EXPECT_EQ(size_text(1024), "1 KiB");
    EXPECT_EQ(size_text(1025), "1025 bytes");
    EXPECT_EQ(size_text(0x180000), "1536 KiB");
    EXPECT_EQ(size_text(0x8000000), "128 MiB");
    EXPECT_EQ(size_text(uint64_t{1} << 42U), "4096 GiB");
    EXPECT_EQ(size_texts<3>({0, 0x10000000, 0xff00000}),
              (std::array<std::string, 3>{"0 MiB", "256 MiB", "255 MiB"}));
    EXPECT_EQ(size_texts<2>({0x10000000, 0x1000}),
              (std::array<std::string, 2>{"262144 KiB", "4 KiB"}));
    EXPECT_EQ(size_texts<2>({0x10000000, 1}),
              (std::array<std::string, 2>{"268435456 bytes", "1 byte"}));
    EXPECT_EQ(size_with_bytes(0x10000), "64 KiB (65536 bytes)");
    EXPECT_EQ(size_with_bytes(100), "100 bytes");
}

TEST(quantities, CountsHaveTheirPlural) {
    EXPECT_EQ(counted(0, "chunk"), "0 chunks");
    EXPECT_EQ(counted(1, "chunk"), "1 chunk");
    EXPECT_EQ(counted(2, "process"), "2 processes");
    EXPECT_EQ(counted(1, "process"), "1 process");
}

TEST(quantities, TimesSayHowFarTheyAreFromUtc) {
    ASSERT_EQ(setenv("TZ", "IST-5:30", 1), 0);
    tzset();
    const std::chrono::system_clock::time_point when{std::chrono::milliseconds{1717107187125}};
    EXPECT_EQ(time_text(when), "2024-05-31T03:43:07+05:30");
    EXPECT_EQ(exact_time_text(when), "2024-05-31T03:43:07.125+05:30");
    EXPECT_EQ(file_time_text(when), "20240531T034307+0530");
    ASSERT_EQ(setenv("TZ", "NST3:30", 1), 0);
    tzset();
    EXPECT_EQ(time_text(when), "2024-05-30T18:43:07-03:30");
    unsetenv("TZ");
    tzset();
}

} // namespace

} // namespace quantities_test
