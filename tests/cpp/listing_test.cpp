#include "region_fixture.hpp"

#include <cstdint>
#include <fcntl.h>
#include <iterator>
#include <ranges>
#include <string>
#include <unistd.h>

namespace listing_test {

using namespace tarvo::literals;
using tarvo::error_code;

namespace {

/// Some bytes of the shared area, changed until the end of the object.
class damage {
  public:
    damage(off_t offset, const std::string& bytes)
        : _fd(::open(world_here().area_path(), O_RDWR | O_CLOEXEC)), _offset(offset),
          _before(bytes.size(), '\0') {
        EXPECT_GE(_fd, 0);
        EXPECT_EQ(::pread(_fd, _before.data(), _before.size(), offset), std::ssize(_before));
        EXPECT_EQ(::pwrite(_fd, bytes.data(), bytes.size(), offset), std::ssize(bytes));
    }
    ~damage() {
        EXPECT_EQ(::pwrite(_fd, _before.data(), _before.size(), _offset), std::ssize(_before));
        ::close(_fd);
    }
    damage(const damage&) = delete;
    damage& operator=(const damage&) = delete;

  private:
    int _fd;
    off_t _offset;
    std::string _before;
};

/// Where the record of the chunk called so lies in the shared area.
off_t record_offset(std::string_view name) {
    return 4 + off_t{tarvo::find_chunk(name)->element()} * 4280;
}

constexpr off_t name_offset = 9;
constexpr off_t pa_offset = 60;

} // namespace

class listings : public region_fixture {};

TEST_F(listings, ShowChunksInAscendingAddressAndDevicesInOrder) {
    allocated("first", 8_KiB);
    allocated("second", 4_KiB);
    ASSERT_TRUE(tarvo::register_device(device(9, 0, 0)));
    ASSERT_TRUE(tarvo::register_device(device(3, 0, 1)));
    const auto now = tarvo::listing::open();
    ASSERT_TRUE(now);
    std::vector<std::string> seen;
    for (const tarvo::listed_device& known : now->devices()) {
        seen.push_back(std::string(known.text().view()) + (known.online() ? "+" : "-"));
    }
    for (const tarvo::listed_chunk& chunk : now->chunks()) {
        seen.emplace_back(chunk.name());
    }
    EXPECT_EQ(seen,
              (std::vector<std::string>{"0000:09:00.0+", "0000:03:00.1+", "first", "second"}));
    EXPECT_FALSE(now->damage());
}

TEST_F(listings, OfAnEmptyRegionAreEmpty) {
    const auto now = tarvo::listing::open();
    ASSERT_TRUE(now);
    EXPECT_EQ(now->chunks().begin(), now->chunks().end());
    EXPECT_EQ(now->devices().begin(), now->devices().end());
}

TEST_F(listings, GoOnWhereAnEarlierRangeStopped) {
    for (const char* name : {"a", "b", "c"}) {
        allocated(name, 4_KiB);
    }
    const auto now = tarvo::listing::open();
    ASSERT_TRUE(now);
    EXPECT_EQ(now->chunks().begin()->name(), "a");
    EXPECT_EQ(std::ranges::count_if(now->chunks(), [](const auto&) { return true; }), 2);
    EXPECT_EQ(now->chunks().begin(), now->chunks().end());
}

TEST_F(listings, HoldTheLockUntilTheyEnd) {
    allocated("ring", 4_KiB);
    EXPECT_FALSE(lock_is_held());
    {
        auto now = tarvo::listing::open();
        ASSERT_TRUE(now);
        const tarvo::listing moved = *std::move(now);
        EXPECT_TRUE(lock_is_held());
        EXPECT_EQ(now->chunks().begin(), now->chunks().end());
        EXPECT_FALSE(now->damage());
        EXPECT_EQ(moved.chunks().begin()->name(), "ring");
        EXPECT_TRUE(lock_is_held());
    }
    EXPECT_FALSE(lock_is_held());
}

TEST_F(listings, RefuseEveryOtherCallMeanwhile) {
    const tarvo::chunk chunk = allocated("ring", 4_KiB);
    const auto now = tarvo::listing::open();
    ASSERT_TRUE(now);
    constexpr auto open = error_code::listing_open;
    EXPECT_TRUE(fails_with(tarvo::listing::open(), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::allocate("other", 4_KiB, "test"), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::find_chunk("ring"), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::find_chunk(chunk.dma()), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::free_chunk(chunk), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::free_chunk("ring"), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::map(chunk), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::register_device(device(3, 0, 0)), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::unregister_device(device(3, 0, 0)), open, "let it go first"));
    EXPECT_TRUE(fails_with(tarvo::iommu_unmap(device(3, 0, 0)), open, "let it go first"));
    EXPECT_TRUE(lock_is_held());
    EXPECT_TRUE(tarvo::dma_to_pa(chunk.dma()));
    EXPECT_EQ(now->chunks().begin()->name(), "ring");
}

TEST_F(listings, LeaveTheLockFreeAfterEachCall) {
    const tarvo::chunk chunk = allocated("ring", 4_KiB);
    EXPECT_FALSE(lock_is_held());
    EXPECT_TRUE(tarvo::map(chunk));
    EXPECT_FALSE(lock_is_held());
    EXPECT_FALSE(tarvo::allocate("ring", 8_KiB, "test"));
    EXPECT_FALSE(lock_is_held());
    EXPECT_TRUE(tarvo::register_device(device(3, 0, 0)));
    EXPECT_FALSE(lock_is_held());
    EXPECT_TRUE(tarvo::free_chunk(chunk));
    EXPECT_FALSE(lock_is_held());
}

TEST_F(listings, EndAtAChunkOutsideTheRegionAndSaySo) {
    const tarvo::chunk chunk = allocated("ring", 4_KiB);
    const damage far_away(record_offset("ring") + pa_offset, std::string(8, '\x7f'));
    {
        const auto now = tarvo::listing::open();
        ASSERT_TRUE(now);
        EXPECT_EQ(now->chunks().begin(), now->chunks().end());
        ASSERT_TRUE(now->damage());
        EXPECT_EQ(now->damage()->code(), error_code::damaged);
        EXPECT_NE(std::string(now->damage()->message()).find("'ring'"), std::string::npos);
    }
    // What the C call would end the process for.
    EXPECT_TRUE(fails_with(tarvo::map(chunk), error_code::damaged, "outside the region"));
    EXPECT_TRUE(fails_with(tarvo::find_chunk("none"), error_code::damaged, "outside the region"));
}

TEST_F(listings, EndAtANameThatBreaksItsColumnAndSaySo) {
    allocated("ring", 4_KiB);
    // Name, address and half of the size without a zero byte.
    const damage endless(record_offset("ring") + name_offset, std::string(61, 'n'));
    EXPECT_TRUE(fails_with(tarvo::find_chunk("ring"), error_code::damaged, "no chunk's line"));
}

TEST_F(listings, EndAtALineThatIsTooLongAndSaySo) {
    allocated("ring", 4_KiB);
    // Name, address, size and creator without a zero byte, and on into the devices.
    const damage endless(record_offset("ring") + name_offset, std::string(600, 'n'));
    EXPECT_TRUE(fails_with(tarvo::find_chunk("ring"), error_code::damaged, "more than 511 bytes"));
}

} // namespace listing_test
