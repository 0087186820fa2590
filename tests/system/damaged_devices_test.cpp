// What the bookkeeping of devices makes of lists whose ends contradict each other, of elements that
// are in use although they are free, and of a chunk without extent.

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

// ---- Walks ----

TEST(a_walk_over_the_chunks, EndsAtTheTailOfTheListToo) {
    iommu_scene scene(low);
    scene.box.writable_area().writer().i32(offset::chunks_tail, 3);
    EXPECT_EQ(scene.call("map_chunks_to_dev 0"), "0");
    EXPECT_EQ(scene.new_lines(),
              chunk_lines("map", {first}, low, {scene.place(0), scene.place(1)}));
    scene.box.writable_area().writer().i32(offset::chunks_tail, 2);
    EXPECT_EQ(scene.call("unmap_dev_all_chunks 0"), "0");
    EXPECT_EQ(scene.new_lines(), chunk_lines("unmap", {first}, low, {scene.place(0)}));
}

TEST(a_walk_over_the_devices, EndsAtTheTailOfTheirList) {
    iommu_scene scene(low);
    scene.box.writable_area().writer().i32(offset::devices_tail, 1);
    EXPECT_EQ(scene.call("map_chunk_all_devs 2"), "0");
    EXPECT_EQ(scene.new_lines(), chunk_lines("map", {first, second}, low, {scene.place(0)}));
}

TEST(a_chunk_without_extent_at_the_regions_start, CannotBeNamedInARequest) {
    iommu_scene scene(high);
    scene.box.writable_area().writer().u32(offset::chunk(2) + offset::size, 0);
    EXPECT_EQ(fatal_outcome(scene.user, "map_unmap_chunk map 2 0"), aborted(not_in_the_region()));
}

} // namespace

} // namespace damaged_devices_test
