// The whole region for one device in one request, with no record kept.

#include "iommu_scene.hpp"
#include "texts.hpp"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>

namespace whole_region_test {

namespace {

constexpr const char* mapping_first = "iommu_map 0 3 0 3";
constexpr const char* unmapping_first = "iommu_unmap 0 3 0";
const std::string unknown = "tarvo: Device not registered\n";

class the_whole_region : public testing::TestWithParam<world> {
  protected:
    the_whole_region() : machine(GetParam()) {}
    ~the_whole_region() override { EXPECT_TRUE(lock_is_free(machine.box.lock_file())); }

    static iommu_request request(const char* op, uint32_t prot) {
        return region_request(op, first, GetParam(), prot);
    }
    /// A chunk, record 2, mapped for the first device, record 0.
    void register_first() {
        machine.user.alloc("rx_ring", page_bytes());
        machine.register_device(first);
        machine.new_events();
        machine.new_lines();
    }
    static chunk_place chunk() { return {GetParam().start, static_cast<uint32_t>(page_bytes())}; }

    iommu_machine machine;
};

TEST_P(the_whole_region, IsMappedWithTheProtectionGivenAndNoRecord) {
    machine.user.limits();
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    texts expected;
    for (const uint32_t prot : {0U, 1U, 2U, 3U, 0x7fffffffU, 0x80000000U}) {
        EXPECT_EQ(machine.call("iommu_map 0 3 0 " + std::to_string(prot)), "0");
        expected.push_back(request("map", prot).line());
    }
    EXPECT_EQ(machine.new_lines(), expected);
    EXPECT_EQ(machine.user.error_text(), "");
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
}

TEST_P(the_whole_region, IsUnmappedWithProtection0ForADeviceThatIsNotRegistered) {
    machine.register_device(second);
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    EXPECT_EQ(machine.call(unmapping_first), "0");
    EXPECT_EQ(machine.user.new_text(), unknown);
    EXPECT_EQ(machine.new_lines(), (texts{request("unmap", 0).line()}));
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
}

TEST_P(the_whole_region, IsMappedForARegisteredDeviceWithoutATrace) {
    register_first();
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    EXPECT_EQ(machine.call(mapping_first), "0");
    EXPECT_EQ(machine.new_lines(), (texts{request("map", 3).line()}));
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
}

TEST_P(the_whole_region, IsMappedForAnOfflineDeviceWhichStaysOffline) {
    register_first();
    machine.set_online(0, false);
    EXPECT_EQ(machine.call(mapping_first), "0");
    EXPECT_EQ(machine.new_lines(), (texts{request("map", 3).line()}));
    EXPECT_EQ(machine.online(), (numbers{0}));
}

TEST_P(the_whole_region, IsLeftAloneWhenARegisteredDeviceIsUnmapped) {
    register_first();
    EXPECT_EQ(machine.call(unmapping_first), "0");
    EXPECT_EQ(machine.user.new_text(), "");
    EXPECT_EQ(machine.new_lines(), chunk_lines("unmap", {first}, GetParam(), {chunk()}));
    EXPECT_EQ(machine.online(), numbers{});
    EXPECT_EQ(machine.devices_of(2), numbers{});
    // It is not registered any more.
    EXPECT_EQ(machine.call(unmapping_first), "0");
    EXPECT_EQ(machine.new_lines(), (texts{request("unmap", 0).line()}));
}

TEST_P(the_whole_region, IsLeftAloneWhenAnOfflineDeviceIsUnmapped) {
    register_first();
    machine.set_online(0, false);
    EXPECT_EQ(machine.call(unmapping_first), "0");
    EXPECT_EQ(machine.user.new_text(), "");
    EXPECT_EQ(machine.new_events(), texts{});
    EXPECT_EQ(machine.online(), numbers{});
}

TEST_P(the_whole_region, IsLeftAloneWhenADeviceCannotBeUnregistered) {
    register_first();
    machine.box.add_rules({"op=unmap,errno=EIO"});
    EXPECT_EQ(machine.call(unmapping_first), "-1");
    EXPECT_EQ(machine.user.new_text(), chunk_refusal("unmap", first, GetParam(), chunk(), EIO) +
                                           "tarvo: Error unmapping all chunks\n");
    EXPECT_EQ(machine.new_lines(), chunk_lines("unmap", {first}, GetParam(), {chunk()}));
    EXPECT_EQ(machine.online(), (numbers{1}));
}

TEST_P(the_whole_region, RefusedToADeviceDoesNotTakeItOffline) {
    register_first();
    machine.box.add_rules({"op=map,errno=ENODEV"});
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    EXPECT_EQ(machine.call(mapping_first), "-1");
    EXPECT_EQ(machine.user.new_text(), request("map", 3).refusal(ENODEV));
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
}

TEST_P(the_whole_region, WhoseUnmappingIsRefusedFailsAfterBothMessages) {
    machine.box.add_rules({"op=unmap,errno=EUNATCH"});
    EXPECT_EQ(machine.call(unmapping_first), "-1");
    EXPECT_EQ(machine.user.new_text(), unknown + request("unmap", 0).refusal(EUNATCH));
}

TEST_P(the_whole_region, IsUnmappedWithTheLockReleasedAgain) {
    machine.user.limits();
    machine.call("calls");
    machine.call(unmapping_first);
    const std::string fd = GetParam().simulated ? "5" : "3";
    EXPECT_EQ(machine.call("calls"),
              "flock(" + fd + ",LOCK_EX)=0 flock(" + fd +
                  ",LOCK_UN)=0 fopen(/sys/kernel/tarvo_iommu_map_region,we)=pointer "
                  "setvbuf(2,0)=0 fclose(stream)=0");
}

TEST_P(the_whole_region, IsNotUnmappedWhenTheLockCannotBeTaken) {
    machine.user.limits();
    machine.call("fail flock EINTR");
    EXPECT_EQ(machine.call(unmapping_first), "-1");
    EXPECT_EQ(machine.user.new_text(), "tarvo: failed to accquire lock: Interrupted system call\n");
    EXPECT_EQ(machine.new_events(), texts{});
}

TEST_P(the_whole_region, IsMeasuredBeforeAnythingElseHappens) {
    const world& here = GetParam();
    machine.user.limits();
    client user = machine.box.start({"setenv ZUL_TRACE 6"});
    user.limits();
    user.new_text();
    const auto to_dma = [&](uint64_t pa) {
        return traced(6, "tarvo_pa_to_dma",
                      "tarvo_pa_to_dma: " + hex(pa) + "->  " + hex(here.dma(pa)));
    };
    const auto to_pa = [&](uint64_t pa) {
        return traced(6, "tarvo_dma_to_pa",
                      "tarvo_dma_to_pa: " + hex(here.dma(pa)) + " -> " + hex(pa));
    };
    const std::string range =
        to_dma(here.start) + to_dma(here.end()) + to_pa(here.end()) + to_pa(here.start);
    EXPECT_EQ(user.call(mapping_first), "0");
    EXPECT_EQ(user.new_text(), range);
    EXPECT_EQ(user.call(unmapping_first), "0");
    EXPECT_EQ(user.new_text(), range + unknown);
}

INSTANTIATE_TEST_SUITE_P(, the_whole_region, testing::ValuesIn(all_worlds()), world_name());

TEST(a_whole_region_request, EndsTheProcessWhereTheLibraryCannotStart) {
    sandbox box(low, {"--without", "proc"});
    const std::string expression =
        "Assertion `tarvo_get_limits(&start_dma, &end_dma) == 0' failed.\n";
    client mapper = box.start();
    EXPECT_EQ(mapper.dies(mapping_first), ended_by(SIGABRT));
    EXPECT_EQ(mapper.error_text(), no_region_at_all() +
                                       "tarvo-client: tarvo:982: int tarvo_iommu_map(uint, uint, "
                                       "uint, uint): " +
                                       expression);
    client unmapper = box.start();
    EXPECT_EQ(unmapper.dies(unmapping_first), ended_by(SIGABRT));
    EXPECT_EQ(
        unmapper.error_text(),
        no_region_at_all() +
            "tarvo-client: tarvo:995: int tarvo_iommu_unmap(uint, uint, uint): " + expression);
}

TEST(a_whole_region_request, OfARegionThatEndsAt4GiBIsThatOfAHighOne) {
    iommu_machine machine(low, {"--region", "f0000000-ffffffff:tarvo"});
    EXPECT_EQ(machine.call(mapping_first), "0");
    EXPECT_EQ(machine.new_lines(), (texts{"map 0 3 0 4026531840 4294967295 536870912 3\n"}));
}

TEST(a_region_of_2_gib, EndsAProcessThatUnmapsEvenARegisteredDevice) {
    iommu_machine machine(high, {"--region", "200000000-27fffffff:tarvo"});
    machine.user.alloc("rx_ring", page_bytes());
    EXPECT_EQ(machine.register_device(first), 0);
    machine.new_events();
    EXPECT_EQ(machine.user.dies(unmapping_first), ended_by(SIGABRT));
    EXPECT_EQ(machine.online(), (numbers{1}));
    EXPECT_EQ(machine.devices_of(2), (numbers{0}));
    EXPECT_EQ(machine.new_events(), texts{});
}

} // namespace

} // namespace whole_region_test
