// The library as built for arm64, with pages of either size that such machines have.

#include "observed.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>

namespace {

struct page_size {
    uint64_t page_bytes;
    uint64_t area_bytes;
};

std::ostream& operator<<(std::ostream& stream, const page_size& size) {
    return stream << "pages_of_" << size.page_bytes;
}

class on_arm64 : public testing::TestWithParam<page_size> {
  protected:
    static std::string page() { return std::to_string(GetParam().page_bytes); }

    /// Of the hardware worlds: simulated memory begins within a page of 64 KiB.
    sandbox machine{low};
    client user = machine.start_program(
        {TARVO_QEMU, "-p", page(), "-L", TARVO_ARM64_LIBRARIES, TARVO_CLIENT_ARM64});
};

TEST_P(on_arm64, TheAreaFillsWholePages) {
    EXPECT_EQ(user.call("overhead"), std::to_string(GetParam().area_bytes));
    user.limits();
    EXPECT_EQ(std::filesystem::file_size(machine.shared_area()), GetParam().area_bytes);
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(on_arm64, ChunksFillWholePagesAndShowTheirMemory) {
    const auto page_bytes = static_cast<uint32_t>(GetParam().page_bytes);
    EXPECT_EQ(user.alloc("rx_ring", 1), low.start_dma);
    EXPECT_EQ(user.alloc("tx_ring", page_bytes + 1), low.start_dma + page_bytes);
    EXPECT_EQ(user.alloc("stats", 1), low.start_dma + 3 * page_bytes);
    user.call("poke " + std::to_string(user.map("tx_ring")) + " " + page() + " frame");

    client native = machine.start();
    const uint64_t window = native.map("tx_ring", false, page_bytes, page_bytes);
    EXPECT_EQ(native.call("peek " + std::to_string(window) + " 0 5"), "6672616d65");
    EXPECT_EQ(native.find(low.start_dma + 3 * page_bytes),
              (found_chunk{"stats", low.start_dma + 3 * page_bytes}));
    EXPECT_EQ(user.error_text() + native.error_text(), "");
    EXPECT_EQ(troubles(machine), texts{});
}

INSTANTIATE_TEST_SUITE_P(, on_arm64,
                         testing::Values(page_size{4096, 70131712}, page_size{65536, 70189056}),
                         testing::PrintToStringParamName());

} // namespace
