// What the bookkeeping of devices makes of lists whose ends contradict each other, and of elements
// that are in use although they are free.

#include "iommu_scene.hpp"
#include "texts.hpp"
#include "world_test.hpp"

namespace damaged_devices_test {

namespace {

namespace offset = area_offset;

const std::string no_end = container_assertion(88, "_head != -1 && _tail != -1");

class damaged_devices : public testing::Test {
  protected:
    sandbox machine{low};
    client user = machine.start({"alloc rx_ring 4096 me"});
};

TEST_F(damaged_devices, WithATailAndNoHeadEndTheProcessThatRegisters) {
    const area_file file = machine.writable_area();
    file.writer().i32(offset::devices_head + 4, 3); // the tail lies after the head
    EXPECT_EQ(fatal_outcome(user, "register 0 3 0"), aborted(no_end));
    EXPECT_EQ(machine.request_lines(), texts{});
}

TEST_F(damaged_devices, WithATailAndNoHeadInAChunkEndTheProcessAfterTheRequest) {
    const area_file file = machine.writable_area();
    file.writer().i32(offset::chunk(2) + offset::devs_tail, 3);
    EXPECT_EQ(fatal_outcome(user, "register 0 3 0"), aborted(no_end));
    EXPECT_EQ(machine.request_lines().size(), 1U);
}

/// A new chunk's list of devices is chained through what is free, and that is asked of the element.
TEST_F(damaged_devices, OfAFreeElementThatAreInUseAreLeftOutOfTheNewChunksFreeChain) {
    const area_file file = machine.writable_area();
    file.writer().u8(offset::ref(3, 1) + offset::allocated, 1);
    user.alloc("tx_ring", 4096);
    const auto next_of = [&](int ref) {
        const auto bytes = file.view().raw(offset::ref(3, ref) + offset::next, 4);
        return bytes[0] + 256 * bytes[1];
    };
    EXPECT_EQ(next_of(0), 2);
    EXPECT_EQ(next_of(1), 0);
    EXPECT_EQ(next_of(2), 3);
}

} // namespace

} // namespace damaged_devices_test
