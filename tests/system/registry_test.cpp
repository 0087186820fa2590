// The devices of the machine: registering, reviving and forgetting them.

#include "iommu_scene.hpp"
#include "joined.hpp"
#include "world_test.hpp"

#include <csignal>

namespace registry_test {

namespace {

class registry : public world_test {
  protected:
    /// Every test ends with an area in order and a lock that the next process can take.
    ~registry() override { EXPECT_EQ(troubles(machine), texts{}); }

    int register_device(const pci_device& device) {
        return user.register_device(device.domain, device.bus, device.devfn);
    }
    int unregister_device(const pci_device& device) {
        return user.unregister_device(device.domain, device.bus, device.devfn);
    }
    void make_chunks() {
        user.alloc("rx_ring", pages(1));
        user.alloc("tx_ring", pages(2));
    }
    /// Those for both chunks.
    static texts lines(const char* op, const pci_device& device) {
        const chunk_place rx_ring{region().start, static_cast<uint32_t>(pages(1))};
        const chunk_place tx_ring{rx_ring.pa + pages(1), static_cast<uint32_t>(pages(2))};
        return chunk_lines(op, {device}, region(), {rx_ring, tx_ring});
    }
};

TEST_P(registry, WritesTheRecordByteForByte) {
    register_device(first);
    register_device({0x01020304, 0xa1a2a3a4, 0xfffffffe});
    const std::vector<uint8_t> expected{0,    0,    0,    0,    0, 0, 0,    0,    1,    0,
                                        0,    0,    4,    3,    2, 1, 0xa4, 0xa3, 0xa2, 0xa1,
                                        0xfe, 0xff, 0xff, 0xff, 1, 0, 0,    0};
    const area_file area = machine.area();
    EXPECT_EQ(first_difference(area.view().raw(area_offset::device(1), 28), expected), "");
}

TEST_P(registry, IsCommonToAllProcessesAndOutlivesThem) {
    make_chunks();
    {
        client owner = machine.start();
        EXPECT_EQ(owner.register_device(0, 3, 0), 0);
        EXPECT_EQ(owner.finish(), normal_end);
    }
    EXPECT_EQ(user.free("rx_ring"), 0);
    EXPECT_EQ(user.alloc("rx_ring", pages(1)), region().start_dma);
    const texts mapped = lines("map", first);
    EXPECT_EQ(machine.request_lines(),
              (texts{mapped[0], mapped[1], lines("unmap", first)[0], mapped[0]}));
    EXPECT_EQ(unregister_device(first), 0);
}

TEST_P(registry, HoldsTheLockWhileItSendsItsRequests) {
    make_chunks();
    for (const char* command : {"register 0 3 0", "register 0 3 0", "unregister 0 3 0"}) {
        user.call("calls");
        EXPECT_EQ(user.call(command), "0");
        EXPECT_EQ(user.call("calls"),
                  joined(taken(), request_calls, " ", request_calls, released()))
            << command;
    }
}

TEST_P(registry, KnowsADeviceByAllThreeNumbersExactly) {
    register_device(first);
    register_device({0xffffffff, 0x80000000, 0x1fe});
    const std::vector<uint8_t> before = machine.area().snapshot();
    std::string said;
    for (const pci_device& other : {pci_device{0, 3, 1},
                                    {0, 2, 0},
                                    {1, 3, 0},
                                    {0x7fffffff, 0x80000000, 0x1fe},
                                    {0xffffffff, 0, 0x1fe},
                                    {0xffffffff, 0x80000000, 0xfe}}) {
        EXPECT_EQ(unregister_device(other), -2);
        said += "tarvo: Device not registered\n";
    }
    EXPECT_EQ(user.new_text(), said);
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(unregister_device({0xffffffff, 0x80000000, 0x1fe}), 0);
}

TEST_P(registry, SendsADevicesNumbersAsTheyWereGiven) {
    make_chunks();
    const pci_device odd{0x80000000, 0x12345, 0xffffffff};
    EXPECT_EQ(register_device(odd), 0);
    EXPECT_EQ(unregister_device(odd), 0);
    texts expected = lines("map", odd);
    for (const std::string& line : lines("unmap", odd)) {
        expected.push_back(line);
    }
    EXPECT_EQ(machine.request_lines(), expected);
}

INSTANTIATE_TEST_SUITE_P(, registry, testing::ValuesIn(all_worlds()), world_name());

TEST(a_full_registry, HasRoomAgainWhenOneIsForgotten) {
    iommu_machine machine(low);
    for (uint32_t i = 0; i < 256; i++) {
        EXPECT_EQ(machine.register_device({0, i, 0}), 0);
    }
    machine.user.alloc("rx_ring", page_bytes());
    EXPECT_EQ(machine.unregister_device({0, 100, 0}), 0);
    EXPECT_EQ(machine.register_device({1, 0, 0}), 0);
    const area_device last = machine.box.area().view().devices().back();
    EXPECT_EQ(last.index, 100);
    EXPECT_EQ(last.domain, 1);
    EXPECT_EQ(last.bus, 0);
    EXPECT_EQ(last.devfn, 0);
    EXPECT_EQ(machine.devices_of(2).size(), 256U);
    EXPECT_EQ(area_breaches(machine.box.area().view()), texts{});
    EXPECT_EQ(machine.user.dies("register 1 0 1"), ended_by(SIGSEGV));
}

} // namespace

} // namespace registry_test
