// Which devices a chunk is mapped for: the library's inner steps, each called on records directly.

#include "iommu_scene.hpp"
#include "texts.hpp"

#include <csignal>
#include <gtest/gtest.h>

namespace bookkeeping_test {

namespace {

namespace offset = area_offset;

std::vector<uint8_t> ref_bytes(const iommu_machine& machine, int chunk, int ref) {
    const area_file area = machine.box.area();
    const auto bytes = area.view().raw(offset::ref(chunk, ref), 16);
    return {bytes.begin(), bytes.end()};
}

// ---- The list of one chunk's devices ----

TEST(add_dev_to_chunk, OfADeviceThatIsThereChangesNothing) {
    iommu_scene scene(low);
    scene.call("add_dev_to_chunk 3 1");
    scene.call("add_dev_to_chunk 3 0");
    const std::vector<uint8_t> before = scene.box.area().snapshot();
    scene.call("add_dev_to_chunk 3 1");
    scene.call("add_dev_to_chunk 3 0");
    EXPECT_EQ(first_difference(scene.box.area().view().bytes(), before), "");
}

TEST(add_dev_to_chunk, WritesLinksMarkAndDeviceNumber) {
    iommu_scene scene(low);
    scene.call("add_dev_to_chunk 2 2");
    scene.call("add_dev_to_chunk 2 1");
    EXPECT_EQ(ref_bytes(scene, 2, 0),
              (std::vector<uint8_t>{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(ref_bytes(scene, 2, 1),
              (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}));
}

TEST(remove_dev_from_chunk, AnswersTheFollowingReference) {
    iommu_scene scene(low);
    scene.map_everything();
    EXPECT_EQ(scene.call("remove_dev_from_chunk 3 1"), "2");
    EXPECT_EQ(scene.devices_of(3), (numbers{0, 2}));
    EXPECT_EQ(scene.call("remove_dev_from_chunk 3 0"), "2");
    EXPECT_EQ(scene.devices_of(3), (numbers{2}));
    EXPECT_EQ(scene.call("remove_dev_from_chunk 3 2"), "null");
    EXPECT_EQ(scene.devices_of(3), numbers{});
    EXPECT_EQ(scene.new_lines(), texts{});
}

TEST(remove_dev_from_chunk, ClearsTheElementAndOffersItNext) {
    iommu_scene scene(low);
    scene.map_everything();
    scene.call("remove_dev_from_chunk 3 1");
    EXPECT_EQ(ref_bytes(scene, 3, 1),
              (std::vector<uint8_t>{3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(scene.box.area().view().free_refs(3).front(), 1);
    EXPECT_EQ(area_breaches(scene.box.area().view()), texts{});
}

// ---- The walks, when all goes well ----

class bookkeeping : public testing::TestWithParam<world> {
  protected:
    bookkeeping() : scene(GetParam()) {}
    ~bookkeeping() override { EXPECT_EQ(area_breaches(scene.box.area().view()), texts{}); }

    static texts lines(const char* op, const std::vector<pci_device>& devices,
                       const std::vector<chunk_place>& chunks) {
        return chunk_lines(op, devices, GetParam(), chunks);
    }

    iommu_scene scene;
};

TEST_P(bookkeeping, SendsOneRequestAndChangesNoRecord) {
    scene.set_online(1, false);
    const std::vector<uint8_t> before = scene.box.area().snapshot();
    EXPECT_EQ(scene.call("map_unmap_chunk map 3 1"), "0");
    EXPECT_EQ(scene.call("map_unmap_chunk unmap 4 0"), "0");
    EXPECT_EQ(scene.call("map_unmap_chunk \"anything else\" 2 0"), "-1");
    EXPECT_EQ(scene.new_lines(),
              (texts{chunk_request("map", second, GetParam(), scene.place(1)).line(),
                     chunk_request("unmap", first, GetParam(), scene.place(2)).line(),
                     chunk_request("anything else", first, GetParam(), scene.place(0)).line()}));
    EXPECT_EQ(first_difference(scene.box.area().view().bytes(), before), "");
}

TEST_P(bookkeeping, MapsAChunkForEveryDeviceInOrder) {
    EXPECT_EQ(scene.call("map_chunk_all_devs 3"), "0");
    EXPECT_EQ(scene.new_lines(), lines("map", all_three, {scene.place(1)}));
    EXPECT_EQ(scene.devices_of_all(), (std::vector<numbers>{{}, {0, 1, 2}, {}}));
}

TEST_P(bookkeeping, MapsAChunkAgainWithoutRecordingItTwice) {
    scene.call("map_chunk_all_devs 3");
    const std::vector<uint8_t> before = scene.box.area().snapshot();
    scene.new_lines();
    EXPECT_EQ(scene.call("map_chunk_all_devs 3"), "0");
    EXPECT_EQ(scene.new_lines(), lines("map", all_three, {scene.place(1)}));
    EXPECT_EQ(first_difference(scene.box.area().view().bytes(), before), "");
}

TEST_P(bookkeeping, PassesOverOfflineDevicesWhenItMapsAChunk) {
    scene.set_online(0, false);
    scene.set_online(2, false);
    EXPECT_EQ(scene.call("map_chunk_all_devs 2"), "0");
    EXPECT_EQ(scene.new_lines(), lines("map", {second}, {scene.place(0)}));
    EXPECT_EQ(scene.devices_of(2), (numbers{1}));
    EXPECT_EQ(scene.online(), (numbers{0, 1, 0}));
}

TEST_P(bookkeeping, UnmapsAChunkFromItsDevicesInTheOrderOfItsList) {
    scene.call("add_dev_to_chunk 3 2");
    scene.call("add_dev_to_chunk 3 0");
    EXPECT_EQ(scene.call("unmap_chunk_all_devs 3"), "0");
    EXPECT_EQ(scene.new_lines(), lines("unmap", {third, first}, {scene.place(1)}));
    EXPECT_EQ(scene.devices_of(3), numbers{});
}

TEST_P(bookkeeping, UnmapsAChunkWithoutDevicesByDoingNothing) {
    const std::vector<uint8_t> before = scene.box.area().snapshot();
    EXPECT_EQ(scene.call("unmap_chunk_all_devs 3"), "0");
    EXPECT_EQ(scene.new_events(), texts{});
    EXPECT_EQ(first_difference(scene.box.area().view().bytes(), before), "");
}

TEST_P(bookkeeping, StrikesOffOfflineDevicesWithoutARequestWhenItUnmapsAChunk) {
    scene.map_everything();
    scene.set_online(1, false);
    EXPECT_EQ(scene.call("unmap_chunk_all_devs 3"), "0");
    EXPECT_EQ(scene.new_lines(), lines("unmap", {first, third}, {scene.place(1)}));
    EXPECT_EQ(scene.devices_of_all(), (std::vector<numbers>{{0, 1, 2}, {}, {0, 1, 2}}));
}

TEST_P(bookkeeping, MapsEveryChunkButTheSentinelsForADevice) {
    EXPECT_EQ(scene.call("map_chunks_to_dev 1"), "0");
    EXPECT_EQ(scene.new_lines(), lines("map", {second}, scene.places()));
    EXPECT_EQ(scene.devices_of_all(), (std::vector<numbers>{{1}, {1}, {1}}));
}

TEST_P(bookkeeping, MapsEveryChunkForADeviceWithoutAskingWhetherItIsOnline) {
    scene.set_online(1, false);
    EXPECT_EQ(scene.call("map_chunks_to_dev 1"), "0");
    EXPECT_EQ(scene.new_lines(), lines("map", {second}, scene.places()));
    EXPECT_EQ(scene.devices_of_all(), (std::vector<numbers>{{1}, {1}, {1}}));
    EXPECT_EQ(scene.online(), (numbers{1, 0, 1}));
}

TEST_P(bookkeeping, UnmapsADeviceFromTheChunksThatHaveIt) {
    scene.map_everything();
    scene.call("remove_dev_from_chunk 3 1");
    EXPECT_EQ(scene.call("unmap_dev_all_chunks 1"), "0");
    EXPECT_EQ(scene.new_lines(), lines("unmap", {second}, {scene.place(0), scene.place(2)}));
    EXPECT_EQ(scene.devices_of_all(), (std::vector<numbers>{{0, 2}, {0, 2}, {0, 2}}));
}

TEST_P(bookkeeping, LeavesTheRecordsOfAnOfflineDeviceWhenItUnmapsIt) {
    scene.map_everything();
    scene.set_online(1, false);
    const std::vector<uint8_t> before = scene.box.area().snapshot();
    EXPECT_EQ(scene.call("unmap_dev_all_chunks 1"), "0");
    EXPECT_EQ(scene.new_events(), texts{});
    EXPECT_EQ(first_difference(scene.box.area().view().bytes(), before), "");
}

TEST_P(bookkeeping, SaysNothingWhenAllGoesWell) {
    scene.map_everything();
    scene.call("map_chunk_all_devs 2");
    scene.call("unmap_chunk_all_devs 2");
    scene.call("unmap_dev_all_chunks 1");
    EXPECT_EQ(scene.user.new_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, bookkeeping, testing::ValuesIn(all_worlds()), world_name());

TEST(bookkeeping_without_devices, SendsNothing) {
    iommu_machine machine(low);
    machine.user.alloc("rx_ring", page_bytes());
    EXPECT_EQ(machine.call("map_chunk_all_devs 2"), "0");
    EXPECT_EQ(machine.call("unmap_chunk_all_devs 2"), "0");
    EXPECT_EQ(machine.user.free("rx_ring"), 0);
    EXPECT_EQ(machine.new_events(), texts{});
    EXPECT_EQ(machine.user.error_text(), "");
}

// ---- Where the walks end ----

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

// ---- Records that are not whole, as a failed allocation leaves them ----

const std::string not_a_physical_address = assertion(
    "uint32_t tarvo_pa_to_dma(uint64_t)", "pa >= dma_chunk_head->pa && pa <= dma_chunk_tail->pa");

TEST(unmapping_a_cleared_chunk, EndsInTheTranslationWhileTheFirstDeviceIsOnline) {
    iommu_scene scene(low);
    EXPECT_EQ(scene.user.dies("unmap_chunk_all_devs 5"), ended_by(SIGABRT));
    EXPECT_EQ(scene.user.new_text(), not_a_physical_address);
    EXPECT_EQ(scene.new_events(), texts{});
}

TEST(unmapping_a_cleared_chunk, EndsInTheContainerOtherwise) {
    iommu_scene scene(low);
    scene.set_online(0, false);
    EXPECT_EQ(scene.user.dies("unmap_chunk_all_devs 5"), ended_by(SIGABRT));
    EXPECT_EQ(scene.user.new_text(), container_assertion(32, "cur->allocated"));
    EXPECT_EQ(scene.new_events(), texts{});
}

TEST(a_chunk_without_extent_at_the_regions_start, CannotBeNamedInARequest) {
    iommu_scene scene(high);
    scene.box.writable_area().writer().u32(offset::chunk(2) + offset::size, 0);
    EXPECT_EQ(scene.user.dies("map_unmap_chunk map 2 0"), ended_by(SIGABRT));
    EXPECT_EQ(scene.user.new_text(), not_a_physical_address);
}

TEST(the_range_of_a_chunk, IsTranslatedEndFirst) {
    iommu_scene scene(high, "6");
    scene.call("map_unmap_chunk map 3 0");
    EXPECT_EQ(scene.user.new_text(),
              traced(6, "tarvo_pa_to_dma", "tarvo_pa_to_dma: 200001fff->  20001fff") +
                  traced(6, "tarvo_pa_to_dma", "tarvo_pa_to_dma: 200001000->  20001000"));
}

} // namespace

} // namespace bookkeeping_test
