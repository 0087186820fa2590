// Areas with -1 where a list has to lead on, as a file of foreign bytes has: a breach like any
// other index out of range.

#include "observed.hpp"

#include <gtest/gtest.h>

namespace missing_link_test {

namespace {

namespace offset = area_offset;

const std::string breach = aborted(container_assertion(159, "idx >= 0 && idx < MAX"));

class missing_link : public testing::TestWithParam<size_t> {
  protected:
    missing_link() { machine.writable_area().writer().i32(GetParam(), -1); }

    sandbox machine{low};
    client user = machine.start({"register 0 3 0", "alloc rx_ring 4096 me"});
};

using missing_end = missing_link;
using missing_neighbour_or_device = missing_link;

TEST_P(missing_end, EndsTheProcessThatStarts) {
    client late = machine.start();
    EXPECT_EQ(fatal_outcome(late, "limits"), breach);
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(, missing_end, testing::Values(offset::chunks_head, offset::chunks_tail));

TEST_P(missing_neighbour_or_device, EndsTheProcessThatFrees) {
    EXPECT_EQ(fatal_outcome(user, "free rx_ring"), breach);
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(, missing_neighbour_or_device,
                         testing::Values(offset::chunk(2) + offset::next,
                                         offset::chunk(2) + offset::prev,
                                         offset::ref(2, 0) + offset::dev));

TEST(foreign_bytes, EndTheProcessThatStarts) {
    sandbox machine(low);
    machine.start({"limits"}).finish();
    const area_file file = machine.writable_area();
    for (size_t at = 0; at < offset::content_end; at += 4) {
        file.writer().i32(at, -1);
    }
    client late = machine.start();
    EXPECT_EQ(fatal_outcome(late, "limits"), breach);
}

} // namespace

} // namespace missing_link_test
