// What is recorded, said and sent when the driver refuses to map or unmap a chunk for a device.

#include "iommu_scene.hpp"

#include <cerrno>
#include <gtest/gtest.h>

namespace bookkeeping_refusal_test {

namespace {

/// A rule that refuses requests for one device.
std::string refused(const std::string& op, const pci_device& device, const std::string& error) {
    return "op=" + op + ",device=" + device.name() + ",errno=" + error;
}

/// A rule that refuses requests for one chunk.
std::string refused(const std::string& op, const chunk_place& chunk, const std::string& error) {
    const std::string pa = "0x" + hex(chunk.pa);
    return "op=" + op + ",range=" + pa + "-" + pa + ",errno=" + error;
}

const std::string mapping_failed = "Error IOMMU mapping chunk Input/output error\n";
const std::string unmapping_failed = "Error IOMMU unmapping chunk Input/output error\n";

class bookkeeping_refused : public testing::TestWithParam<world> {
  protected:
    bookkeeping_refused() : scene(GetParam()) {}
    ~bookkeeping_refused() override { EXPECT_EQ(area_breaches(scene.box.area().view()), texts{}); }

    void answer(const texts& rules) { scene.box.replace_rules(rules); }
    /// Both reports of a refused request.
    std::string report(const char* op, const pci_device& device, size_t chunk, int error) const {
        return chunk_refusal(op, device, GetParam(), scene.place(chunk), error);
    }
    static texts lines(const char* op, const std::vector<pci_device>& devices,
                       const std::vector<chunk_place>& chunks) {
        return chunk_lines(op, devices, GetParam(), chunks);
    }
    /// What the walks over the chunks found: their devices and the flags of the three devices.
    void expect_records(const std::vector<numbers>& devices, const numbers& online) const {
        EXPECT_EQ(scene.devices_of_all(), devices);
        EXPECT_EQ(scene.online(), online);
    }

    iommu_scene scene;
};

texts operator+(texts first_ones, const texts& last_ones) {
    first_ones.insert(first_ones.end(), last_ones.begin(), last_ones.end());
    return first_ones;
}

// ---- A chunk for all devices ----

TEST_P(bookkeeping_refused, RollingBackAChunkEmptiesItsListWhateverIsAnswered) {
    answer({refused("map", third, "EIO"), refused("unmap", first, "EIO"),
            refused("unmap", second, "ENODEV")});
    EXPECT_EQ(outcome(scene.user, "map_chunk_all_devs 3"),
              "-1\n" + report("map", third, 1, EIO) + mapping_failed +
                  report("unmap", first, 1, EIO) + unmapping_failed +
                  report("unmap", second, 1, ENODEV));
    EXPECT_EQ(scene.new_lines(), lines("map", all_three, {scene.place(1)}) +
                                     lines("unmap", {first, second}, {scene.place(1)}));
    expect_records({{}, {}, {}}, {1, 0, 1});
}

TEST_P(bookkeeping_refused, RollingBackAChunkAlsoUnmapsWhatWasMappedBefore) {
    scene.map_everything();
    answer({refused("map", first, "EIO")});
    EXPECT_EQ(scene.call("map_chunk_all_devs 3"), "-1");
    EXPECT_EQ(scene.new_lines(), lines("map", {first}, {scene.place(1)}) +
                                     lines("unmap", all_three, {scene.place(1)}));
    expect_records({{0, 1, 2}, {}, {0, 1, 2}}, {1, 1, 1});
}

TEST_P(bookkeeping_refused, UnmappingAChunkFailsForOneRefusalAmongOthers) {
    scene.map_everything();
    answer({refused("unmap", first, "EIO"), refused("unmap", second, "EUNATCH")});
    EXPECT_EQ(outcome(scene.user, "unmap_chunk_all_devs 3"),
              "-1\n" + report("unmap", first, 1, EIO) + unmapping_failed +
                  report("unmap", second, 1, EUNATCH));
    expect_records({{0, 1, 2}, {}, {0, 1, 2}}, {1, 0, 1});
}

TEST_P(bookkeeping_refused, UnmappingAChunkTakesVanishedDevicesOfflineAndSucceeds) {
    scene.map_everything();
    answer({refused("unmap", first, "ENODEV"), refused("unmap", third, "EUNATCH")});
    EXPECT_EQ(outcome(scene.user, "unmap_chunk_all_devs 3"),
              "0\n" + report("unmap", first, 1, ENODEV) + report("unmap", third, 1, EUNATCH));
    EXPECT_EQ(scene.new_lines(), lines("unmap", all_three, {scene.place(1)}));
    expect_records({{0, 1, 2}, {}, {0, 1, 2}}, {0, 1, 0});
}

// ---- All chunks for a device ----

TEST_P(bookkeeping_refused, MappingForADeviceThatVanishedIsNotUndone) {
    answer({refused("map", scene.place(1), "ENODEV"), refused("map", scene.place(2), "EIO")});
    EXPECT_EQ(outcome(scene.user, "map_chunks_to_dev 1"),
              "-1\n" + report("map", second, 1, ENODEV) + report("map", second, 2, EIO) +
                  mapping_failed);
    EXPECT_EQ(scene.new_lines(), lines("map", {second}, scene.places()));
    expect_records({{1}, {}, {}}, {1, 0, 1});
}

TEST_P(bookkeeping_refused, UndoingSaysNothingOfItsOwnWhenItIsRefused) {
    answer({refused("map", scene.place(2), "EIO"), refused("unmap", scene.place(0), "EIO")});
    EXPECT_EQ(outcome(scene.user, "map_chunks_to_dev 1"), "-1\n" + report("map", second, 2, EIO) +
                                                              mapping_failed +
                                                              report("unmap", second, 0, EIO));
    expect_records({{1}, {}, {}}, {1, 1, 1});
}

TEST_P(bookkeeping_refused, UnmappingADeviceFailsForARefusalBeforeItVanishes) {
    scene.map_everything();
    answer({refused("unmap", scene.place(0), "EIO"), refused("unmap", scene.place(1), "ENODEV")});
    EXPECT_EQ(outcome(scene.user, "unmap_dev_all_chunks 1"),
              "-1\n" + report("unmap", second, 0, EIO) + report("unmap", second, 1, ENODEV));
    expect_records({{0, 1, 2}, {0, 1, 2}, {0, 1, 2}}, {1, 0, 1});
}

INSTANTIATE_TEST_SUITE_P(, bookkeeping_refused, testing::ValuesIn(all_worlds()), world_name());

// ---- The error that decides is the one that stands at the end ----

class a_refusal_whose_error_changes : public testing::Test {
  protected:
    std::string report(int error) const {
        return chunk_request("map", first, low, scene.place(0)).refusal(error);
    }
    std::string failure() const { return chunk_failure("map", first, low, scene.place(0)); }

    iommu_scene scene{low};
};

TEST_F(a_refusal_whose_error_changes, InAFailingCloseIsDecidedByThat) {
    scene.box.add_rules({"op=map,nth=1,errno=EIO", "op=map,at=close,nth=1,errno=ENODEV"});
    EXPECT_EQ(outcome(scene.user, "map_chunks_to_dev 0"),
              "0\n" + report(EIO) + "tarvo: fclose failed: No such device\n" + failure());
    EXPECT_EQ(scene.online(), (numbers{0, 1, 1}));
    EXPECT_EQ(scene.devices_of_all(), (std::vector<numbers>{{}, {0}, {0}}));
}

TEST_F(a_refusal_whose_error_changes, FromALostDeviceToAnotherErrorIsAnError) {
    scene.box.add_rules({"op=map,nth=1,errno=ENODEV", "op=map,at=close,nth=1,errno=EIO"});
    EXPECT_EQ(outcome(scene.user, "map_chunks_to_dev 0"),
              "-1\n" + report(ENODEV) + "tarvo: fclose failed: Input/output error\n" + failure() +
                  mapping_failed);
    EXPECT_EQ(scene.online(), (numbers{1, 1, 1}));
}

TEST_F(a_refusal_whose_error_changes, WhileItsReportIsFormattedIsDecidedByThat) {
    scene.box.add_rules({"op=map,errno=ENODEV"});
    scene.call("fail asprintf ENOMEM 2");
    EXPECT_EQ(outcome(scene.user, "map_chunks_to_dev 0"),
              "-1\n" + report(ENODEV) +
                  "map_unmap_chunk: map on dev 0000:03:00.0 failed: -1, "
                  "Error formatting string\n"
                  "Error IOMMU mapping chunk Cannot allocate memory\n");
    EXPECT_EQ(scene.online(), (numbers{1, 1, 1}));
}

TEST(a_request_file_that_will_not_open, TakesTheDeviceOfflineWhenTheErrorSaysSo) {
    iommu_scene scene(high);
    scene.box.add_rules({"op=open-write,file=sysfs,nth=1,errno=ENODEV"});
    EXPECT_EQ(outcome(scene.user, "map_chunk_all_devs 2"),
              "0\ntarvo: failed to open sysfs file: No such device\n" +
                  chunk_failure("map", first, high, scene.place(0)));
    EXPECT_EQ(scene.online(), (numbers{0, 1, 1}));
}

TEST(a_stream_that_stays_buffered, TakesTheDeviceOfflineWhenTheErrorSaysSo) {
    iommu_scene scene(high);
    scene.call("fail setvbuf EUNATCH");
    EXPECT_EQ(outcome(scene.user, "map_chunk_all_devs 2"),
              "0\ntarvo: failed to set _IONBF: Protocol driver not attached\n" +
                  chunk_failure("map", first, high, scene.place(0)));
    EXPECT_EQ(scene.online(), (numbers{0, 1, 1}));
}

// ---- The report ----

TEST(the_report_of_a_failed_request, SplitsTheDeviceNumberAndShowsTheLastByte) {
    iommu_machine machine(high, {"--rule", "op=map,errno=EIO"});
    machine.user.alloc("rx_ring", 0x10000);
    EXPECT_EQ(machine.register_device({0x12345, 0xabc, 0x1fe}), -1);
    EXPECT_EQ(machine.user.error_text(),
              "tarvo: failed to iommu map domain 74565 bus 2748 devfn 510 startpa 0x200000000 "
              "endpa 0x20000fffe startdma 0x20000000 prot 3 errno 5\n"
              "map_unmap_chunk: map on dev 12345:abc:1f.6 failed: -1, "
              "DMA(0x20000000 - 0x2000ffff) -> PA(0x200000000 - 0x20000ffff)\n"
              "Error IOMMU mapping chunk Input/output error\n"
              "tarvo: tarvo_register_device: failed to map chunk\n");
}

TEST(the_report_of_a_failed_request, IsTracedUnderItsLineBeforeItIsPrinted) {
    iommu_machine machine(low, {"--rule", "op=map,errno=EINVAL"}, {"setenv ZUL_TRACE 3"});
    machine.user.alloc("rx_ring", page_bytes());
    machine.register_device(first);
    const chunk_place chunk{low.start, static_cast<uint32_t>(page_bytes())};
    const std::string report = chunk_failure("map", first, low, chunk);
    EXPECT_EQ(machine.user.error_text(), chunk_request("map", first, low, chunk).refusal(EINVAL) +
                                             "[tarvo:3] tarvo:561 map_unmap_chunk: " + report +
                                             report +
                                             "Error IOMMU mapping chunk Invalid argument\n"
                                             "tarvo: tarvo_register_device: failed to map chunk\n");
}

TEST(the_report_of_a_failed_request, IsNotTracedBelowLevel3) {
    iommu_scene scene(low, "2");
    scene.box.add_rules({"op=map,errno=EINVAL"});
    scene.call("map_unmap_chunk map 2 0");
    EXPECT_EQ(scene.user.error_text(), chunk_refusal("map", first, low, scene.place(0), EINVAL));
}

} // namespace

} // namespace bookkeeping_refusal_test
