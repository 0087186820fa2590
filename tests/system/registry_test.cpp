// The devices of the machine: registering, reviving and forgetting them.

#include "iommu_scene.hpp"
#include "texts.hpp"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>

namespace registry_test {

namespace {

namespace offset = area_offset;

const std::string unknown = "tarvo: Device not registered\n";

std::vector<uint8_t> device_bytes(const iommu_machine& machine, int index) {
    const area_file area = machine.box.area();
    const auto bytes = area.view().raw(offset::device(index), 28);
    return {bytes.begin(), bytes.end()};
}

/// Registered devices as "INDEX:DOMAIN:BUS:DEVFN", in the order of their list.
texts listed(const iommu_machine& machine) {
    texts list;
    for (const area_device& device : machine.box.area().view().devices()) {
        list.push_back(std::to_string(device.index) + ":" + std::to_string(device.domain) + ":" +
                       std::to_string(device.bus) + ":" + std::to_string(device.devfn));
    }
    return list;
}

class registry : public testing::TestWithParam<world> {
  protected:
    registry() : machine(GetParam()) {}
    /// Every test ends with an area in order and a lock that the next process can take.
    ~registry() override {
        EXPECT_EQ(area_breaches(machine.box.area().view(), {.stale_refs = true}), texts{});
        EXPECT_TRUE(lock_is_free(machine.box.lock_file()));
    }

    /// Two chunks, records 2 and 3.
    void make_chunks() {
        machine.user.alloc("rx_ring", pages(1));
        machine.user.alloc("tx_ring", pages(2));
    }
    static std::vector<chunk_place> both() {
        return {{GetParam().start, static_cast<uint32_t>(pages(1))},
                {GetParam().start + pages(1), static_cast<uint32_t>(pages(2))}};
    }
    static texts lines(const char* op, const std::vector<pci_device>& devices) {
        return chunk_lines(op, devices, GetParam(), both());
    }
    static std::string refusal(const char* op, const pci_device& device, size_t chunk, int error) {
        return chunk_refusal(op, device, GetParam(), both().at(chunk), error);
    }
    std::vector<numbers> devices_of_both() const {
        return {machine.devices_of(2), machine.devices_of(3)};
    }

    iommu_machine machine;
};

// ---- Registering ----

TEST_P(registry, MapsEveryChunkForANewDevice) {
    make_chunks();
    EXPECT_EQ(machine.register_device(first), 0);
    EXPECT_EQ(machine.new_lines(), lines("map", {first}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {0}}));
    EXPECT_EQ(machine.online(), (numbers{1}));
    EXPECT_EQ(machine.user.new_text(), "");
}

TEST_P(registry, SendsNothingWhereThereAreNoChunks) {
    EXPECT_EQ(machine.register_device(first), 0);
    EXPECT_EQ(machine.register_device(first), 0);
    EXPECT_EQ(machine.unregister_device(first), 0);
    EXPECT_EQ(machine.new_events(), texts{});
    EXPECT_EQ(machine.user.new_text(), "");
}

TEST_P(registry, WritesTheRecordByteForByte) {
    machine.register_device(first);
    machine.register_device({0x01020304, 0xa1a2a3a4, 0xfffffffe});
    EXPECT_EQ(
        device_bytes(machine, 1),
        (std::vector<uint8_t>{0, 0, 0,    0,    0,    0,    0,    0,    1,    0,    0, 0, 4, 3,
                              2, 1, 0xa4, 0xa3, 0xa2, 0xa1, 0xfe, 0xff, 0xff, 0xff, 1, 0, 0, 0}));
}

TEST_P(registry, ListsDevicesInTheOrderOfTheirFirstRegistration) {
    for (const pci_device& device : {third, first, second, third, first}) {
        EXPECT_EQ(machine.register_device(device), 0);
    }
    EXPECT_EQ(listed(machine), (texts{"0:1:3:0", "1:0:3:0", "2:0:4:17"}));
}

TEST_P(registry, MapsEveryChunkAgainForADeviceThatIsKnown) {
    make_chunks();
    machine.register_device(first);
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    machine.new_lines();
    EXPECT_EQ(machine.register_device(first), 0);
    EXPECT_EQ(machine.new_lines(), lines("map", {first}));
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
    EXPECT_EQ(machine.user.new_text(), "");
}

TEST_P(registry, RevivesADeviceThatIsOffline) {
    machine.register_device(first);
    machine.box.add_rules({"op=map,nth=1,errno=ENODEV"});
    make_chunks();
    EXPECT_EQ(machine.online(), (numbers{0}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{}, {}}));
    machine.new_lines();
    EXPECT_EQ(machine.register_device(first), 0);
    EXPECT_EQ(machine.online(), (numbers{1}));
    EXPECT_EQ(machine.new_lines(), lines("map", {first}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {0}}));
}

TEST_P(registry, LeavesADeviceOfflineThatVanishesWhileItIsRevived) {
    make_chunks();
    machine.register_device(first);
    machine.set_online(0, false);
    machine.new_lines();
    machine.box.add_rules({"op=map,nth=1,errno=EUNATCH"});
    EXPECT_EQ(machine.register_device(first), 0);
    EXPECT_EQ(machine.online(), (numbers{0}));
    EXPECT_EQ(machine.new_lines(), lines("map", {first}));
    EXPECT_EQ(machine.user.new_text(), refusal("map", first, 0, EUNATCH));
}

TEST_P(registry, KeepsADeviceOnlineWhoseChunksCannotBeMapped) {
    make_chunks();
    machine.box.add_rules({"op=map,nth=2,errno=EIO"});
    EXPECT_EQ(machine.register_device(first), -1);
    EXPECT_EQ(machine.user.new_text(), refusal("map", first, 1, EIO) +
                                           "Error IOMMU mapping chunk Input/output error\n" +
                                           "tarvo: tarvo_register_device: failed to map chunk\n");
    EXPECT_EQ(machine.new_lines(), (texts{lines("map", {first})[0], lines("map", {first})[1],
                                          lines("unmap", {first})[0]}));
    EXPECT_EQ(listed(machine), (texts{"0:0:3:0"}));
    EXPECT_EQ(machine.online(), (numbers{1}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{}, {}}));
}

TEST_P(registry, IsCommonToAllProcessesAndOutlivesThem) {
    make_chunks();
    {
        client owner = machine.box.start();
        EXPECT_EQ(owner.register_device(0, 3, 0), 0);
        EXPECT_EQ(owner.finish(), normal_end);
    }
    machine.new_lines();
    EXPECT_EQ(machine.user.free("rx_ring"), 0);
    EXPECT_EQ(machine.user.alloc("rx_ring", pages(1)), GetParam().start_dma);
    EXPECT_EQ(machine.new_lines(), (texts{lines("unmap", {first})[0], lines("map", {first})[0]}));
    EXPECT_EQ(machine.unregister_device(first), 0);
}

TEST_P(registry, HoldsTheLockWhileItSendsItsRequests) {
    make_chunks();
    const std::string request = "fopen(/sys/kernel/tarvo_iommu_map_region,we)=pointer "
                                "setvbuf(2,0)=0 fclose(stream)=0 ";
    const std::string fd = GetParam().simulated ? "5" : "3";
    const std::string locked =
        "flock(" + fd + ",LOCK_EX)=0 " + request + request + "flock(" + fd + ",LOCK_UN)=0";
    for (const char* command : {"register 0 3 0", "register 0 3 0", "unregister 0 3 0"}) {
        machine.call("calls");
        EXPECT_EQ(machine.call(command), "0");
        EXPECT_EQ(machine.call("calls"), locked) << command;
    }
}

// ---- Unregistering ----

TEST_P(registry, UnmapsEveryChunkForADeviceItForgets) {
    make_chunks();
    machine.register_device(first);
    machine.register_device(second);
    machine.new_lines();
    EXPECT_EQ(machine.unregister_device(first), 0);
    EXPECT_EQ(machine.new_lines(), lines("unmap", {first}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{1}, {1}}));
    EXPECT_EQ(listed(machine), (texts{"1:0:4:17"}));
    EXPECT_EQ(machine.user.new_text(), "");
}

TEST_P(registry, ClearsAForgottenRecordAndUsesItNext) {
    for (const pci_device& device : all_three) {
        machine.register_device(device);
    }
    machine.unregister_device(second);
    std::vector<uint8_t> cleared(28, 0);
    cleared[0] = 3; // the link to the record that was free before
    EXPECT_EQ(device_bytes(machine, 1), cleared);
    EXPECT_EQ(machine.box.area().view().free_devices().front(), 1);
    machine.register_device({7, 8, 9});
    EXPECT_EQ(listed(machine), (texts{"0:0:3:0", "2:1:3:0", "1:7:8:9"}));
}

TEST_P(registry, KnowsADeviceByAllThreeNumbersExactly) {
    machine.register_device(first);
    machine.register_device({0xffffffff, 0x80000000, 0x1fe});
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    std::string said;
    for (const pci_device& other : {pci_device{0, 3, 1},
                                    {0, 2, 0},
                                    {1, 3, 0},
                                    {0x7fffffff, 0x80000000, 0x1fe},
                                    {0xffffffff, 0, 0x1fe},
                                    {0xffffffff, 0x80000000, 0xfe}}) {
        EXPECT_EQ(machine.unregister_device(other), -2);
        said += unknown;
    }
    EXPECT_EQ(machine.user.new_text(), said);
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
    EXPECT_EQ(machine.unregister_device({0xffffffff, 0x80000000, 0x1fe}), 0);
}

TEST_P(registry, KnowsNoDeviceWhereNoneIsRegistered) {
    make_chunks();
    EXPECT_EQ(machine.unregister_device(first), -2);
    machine.register_device(first);
    machine.unregister_device(first);
    machine.new_events();
    EXPECT_EQ(machine.unregister_device(first), -2);
    EXPECT_EQ(machine.user.new_text(), unknown + unknown);
    EXPECT_EQ(machine.new_events(), texts{});
}

TEST_P(registry, SendsADevicesNumbersAsTheyWereGiven) {
    make_chunks();
    const pci_device odd{0x80000000, 0x12345, 0xffffffff};
    EXPECT_EQ(machine.register_device(odd), 0);
    EXPECT_EQ(machine.unregister_device(odd), 0);
    texts expected = lines("map", {odd});
    for (const std::string& line : lines("unmap", {odd})) {
        expected.push_back(line);
    }
    EXPECT_EQ(machine.new_lines(), expected);
}

TEST_P(registry, KeepsADeviceWhoseChunksCannotBeUnmapped) {
    make_chunks();
    machine.register_device(first);
    machine.new_lines();
    machine.box.add_rules({"op=unmap,nth=1,errno=EIO"});
    EXPECT_EQ(machine.unregister_device(first), -1);
    EXPECT_EQ(machine.user.new_text(),
              refusal("unmap", first, 0, EIO) + "tarvo: Error unmapping all chunks\n");
    EXPECT_EQ(machine.new_lines(), lines("unmap", {first}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {}}));
    EXPECT_EQ(machine.online(), (numbers{1}));
    // The next attempt asks for what is left.
    EXPECT_EQ(machine.unregister_device(first), 0);
    EXPECT_EQ(machine.new_lines(), (texts{lines("unmap", {first})[0]}));
    EXPECT_EQ(listed(machine), texts{});
}

// ---- What an offline device leaves behind ----

TEST_P(registry, ForgetsAnOfflineDeviceWithoutARequest) {
    make_chunks();
    machine.register_device(first);
    machine.set_online(0, false);
    machine.new_events();
    EXPECT_EQ(machine.unregister_device(first), 0);
    EXPECT_EQ(machine.new_events(), texts{});
    EXPECT_EQ(machine.user.new_text(), "");
    EXPECT_EQ(listed(machine), texts{});
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {0}}));
}

TEST_P(registry, ForgetsADeviceThatVanishesOnTheWayAndKeepsItsReferences) {
    make_chunks();
    machine.register_device(first);
    machine.new_lines();
    machine.box.add_rules({"op=unmap,errno=ENODEV"});
    EXPECT_EQ(machine.unregister_device(first), 0);
    EXPECT_EQ(machine.user.new_text(), refusal("unmap", first, 0, ENODEV));
    EXPECT_EQ(machine.new_lines(), (texts{lines("unmap", {first})[0]}));
    EXPECT_EQ(listed(machine), texts{});
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {0}}));
}

class an_inheriting_device : public registry {
  protected:
    /// The device with record 0 has gone and left its references.
    an_inheriting_device() {
        make_chunks();
        machine.register_device(first);
        machine.set_online(0, false);
        machine.unregister_device(first);
        machine.new_lines();
    }
};

TEST_P(an_inheriting_device, IsMappedForAllChunksAndNotRecordedAgain) {
    EXPECT_EQ(machine.register_device(second), 0);
    EXPECT_EQ(machine.new_lines(), lines("map", {second}));
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {0}}));
}

TEST_P(an_inheriting_device, CountsAsMappedEvenWhereItsMappingWasRefused) {
    machine.box.add_rules({"op=map,nth=1,errno=ENODEV"});
    EXPECT_EQ(machine.register_device(second), 0);
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{0}, {0}}));
    EXPECT_EQ(machine.online(), (numbers{0}));
}

TEST_P(an_inheriting_device, IsUnmappedFromChunksThatItNeverHad) {
    machine.box.add_rules({"op=map,nth=1,errno=EIO"});
    EXPECT_EQ(machine.register_device(second), -1);
    texts expected{lines("map", {second})[0]};
    for (const std::string& line : lines("unmap", {second})) {
        expected.push_back(line);
    }
    EXPECT_EQ(machine.new_lines(), expected);
    EXPECT_EQ(devices_of_both(), (std::vector<numbers>{{}, {}}));
}

TEST_P(an_inheriting_device, IsTheOneFromWhichAChunkIsUnmapped) {
    machine.register_device(second);
    machine.new_lines();
    EXPECT_EQ(machine.user.free("rx_ring"), 0);
    EXPECT_EQ(machine.new_lines(), (texts{lines("unmap", {second})[0]}));
}

TEST_P(an_inheriting_device, IsNotNeededToFreeTheChunks) {
    EXPECT_EQ(machine.user.free("rx_ring"), 0);
    EXPECT_EQ(machine.user.free("tx_ring"), 0);
    EXPECT_EQ(machine.new_lines(), texts{});
    EXPECT_EQ(machine.user.new_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, registry, testing::ValuesIn(all_worlds()), world_name());
INSTANTIATE_TEST_SUITE_P(, an_inheriting_device, testing::ValuesIn(all_worlds()), world_name());

// ---- A full registry ----

class a_full_registry : public testing::Test {
  protected:
    a_full_registry() {
        for (uint32_t i = 0; i < 256; i++) {
            EXPECT_EQ(machine.register_device({0, i, 0}), 0);
        }
        machine.user.alloc("rx_ring", page_bytes());
        machine.new_lines();
    }

    iommu_machine machine{low};
};

TEST_F(a_full_registry, EndsTheProcessThatRegistersOneMoreByAMemoryFault) {
    const std::vector<uint8_t> before = machine.box.area().snapshot();
    EXPECT_EQ(machine.user.dies("register 1 0 0"), ended_by(SIGSEGV));
    EXPECT_EQ(machine.user.error_text(), "");
    EXPECT_EQ(machine.new_lines(), texts{});
    EXPECT_EQ(first_difference(machine.box.area().view().bytes(), before), "");
    EXPECT_TRUE(lock_is_free(machine.box.lock_file()));
}

TEST_F(a_full_registry, RevivesEveryDeviceItKnows) {
    const chunk_place chunk{low.start, static_cast<uint32_t>(page_bytes())};
    for (const uint32_t bus : {0U, 128U, 255U}) {
        const pci_device device{0, bus, 0};
        EXPECT_EQ(machine.register_device(device), 0);
        EXPECT_EQ(machine.new_lines(), chunk_lines("map", {device}, low, {chunk}));
    }
}

TEST_F(a_full_registry, HasRoomAgainWhenOneIsForgotten) {
    EXPECT_EQ(machine.unregister_device({0, 100, 0}), 0);
    EXPECT_EQ(machine.register_device({1, 0, 0}), 0);
    EXPECT_EQ(listed(machine).back(), "100:1:0:0");
    EXPECT_EQ(machine.devices_of(2).size(), 256U);
    EXPECT_EQ(area_breaches(machine.box.area().view()), texts{});
    EXPECT_EQ(machine.user.dies("register 1 0 1"), ended_by(SIGSEGV));
}

// ---- No library ----

} // namespace

} // namespace registry_test
