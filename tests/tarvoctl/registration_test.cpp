#include "tool.hpp"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>

namespace registration_test {

namespace {

TEST(registering, LetsADeviceSeeEveryChunk) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 test", "alloc b 1 test"});
    EXPECT_EQ(tarvoctl(machine, {"register", "03:00.1"}),
              printed("0000:03:00.1: registered, online, 2 of 2 chunks mapped for it\n"));
    EXPECT_EQ(machine.request_lines().size(), 2);
    EXPECT_EQ(tarvoctl(machine, {"register", "0000:03:00.1"}).output,
              "0000:03:00.1: was registered already, online, 2 of 2 chunks mapped for it\n");
}

TEST(registering, TakesDomainBusSlotAndFunctionInHexadecimal) {
    sandbox machine(low);
    const auto document = json_of(tarvoctl(machine, {"register", "0001a:fe:1f.7", "--json"}));
    EXPECT_EQ(document.at("device").at("domain"), 0x1a);
    EXPECT_EQ(document.at("device").at("bus"), 0xfe);
    EXPECT_EQ(document.at("device").at("devfn"), 0xff);
    EXPECT_EQ(document.at("was_registered"), false);
    EXPECT_EQ(document.at("chunks"), nlohmann::json::array());
}

TEST(registering, WhatIsNoDeviceIsAUsageError) {
    sandbox machine(low);
    for (const char* wrong :
         {"3", "03:00", "03:20.0", "03:00.8", "0:0:03:00.0", "x3:00.0", ":03:00.0", "03:00.0 "}) {
        EXPECT_EQ(tarvoctl(machine, {"register", wrong}),
                  failed(2, std::string("invalid PCI device '") + wrong +
                                "'; write it as 0000:03:00.0 or 03:00.0 (lspci -D lists them)"))
            << wrong;
    }
    EXPECT_FALSE(exists(machine.shared_area()));
}

TEST(registering, ADeviceThatTheDriverDoesNotKnowIsAFinding) {
    sandbox machine(low, {"--rule", "op=map,errno=ENODEV"});
    const client driver = machine.start({"alloc a 1 test"});
    const auto outcome = tarvoctl(machine, {"register", "03:00.0"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "0000:03:00.0: registered, offline, 0 of 1 chunk mapped for it\n");
    EXPECT_TRUE(ends_with(outcome.errors,
                          "tarvoctl: the kernel driver does not know the device, so no chunk made "
                          "later is mapped for it; the answers to the requests are above\n"));
}

TEST(registering, ARefusedChunkIsAFinding) {
    sandbox machine(low, {"--rule", "op=map,nth=2,errno=EIO"});
    const client driver = machine.start({"alloc a 1 test", "alloc b 1 test"});
    const auto outcome = tarvoctl(machine, {"register", "03:00.0"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "0000:03:00.0: registered, online, 0 of 2 chunks mapped for it\n");
    EXPECT_TRUE(ends_with(outcome.errors,
                          "tarvoctl: some chunk could not be mapped, so the others were "
                          "unmapped again; the answers to the requests are above\n"));
}

TEST(registering, The257thDeviceIsRefusedBeforeTheLibraryFaults) {
    sandbox machine(low);
    client driver = machine.start();
    for (uint32_t devfn = 0; devfn < 256; ++devfn) {
        driver.register_device(0, 1, devfn);
    }
    EXPECT_EQ(tarvoctl(machine, {"register", "02:00.0"}),
              failed(1, "all 256 device records are in use; unregister one before 0000:02:00.0"));
    EXPECT_EQ(tarvoctl(machine, {"register", "01:00.0"}).status, 0) << "that one is registered";
}

TEST(unregistering, NamesWhatTheDeviceSeesAndRefusesWithoutATerminal) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 test", "alloc b 1 test", "register 0 3 0"});
    const auto refused = tarvoctl(machine, {"unregister", "03:00.0"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, "tarvoctl: 0000:03:00.0 would lose 2 chunks: a, b\n"
                              "tarvoctl: nothing was changed; --force does it without asking\n");
    EXPECT_EQ(machine.area().view().devices().size(), 1);
    const auto document =
        json_of(tarvoctl(machine, {"unregister", "03:00.0", "--force", "--json"}));
    EXPECT_EQ(document.at("unregistered"), true);
    EXPECT_EQ(document.at("chunks"), (nlohmann::json{"a", "b"}));
    EXPECT_EQ(machine.area().view().devices().size(), 0);
}

TEST(unregistering, WarnsOfWhatAnOfflineDeviceLeavesBehind) {
    sandbox machine(low);
    client driver = machine.start({"register 0 3 0", "alloc a 1 test"});
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("b", 0x1000);
    const auto outcome = tarvoctl(machine, {"unregister", "03:00.0", "--force"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "0000:03:00.0: unregistered\n");
    EXPECT_EQ(outcome.errors, "tarvoctl: 0000:03:00.0 is offline: nothing would be unmapped, and "
                              "the next device in its record would inherit 1 chunk: a\n");
}

TEST(unregistering, ADeviceThatSeesNothingNeedsNoForce) {
    sandbox machine(low);
    const client driver = machine.start({"register 0 3 0"});
    EXPECT_EQ(tarvoctl(machine, {"unregister", "03:00.0"}).output, "0000:03:00.0: unregistered\n");
    EXPECT_EQ(tarvoctl(machine, {"unregister", "03:00.0"}),
              failed(2, "0000:03:00.0 is not registered; 'tarvoctl devices' shows those that are"));
}

TEST(unregistering, ARefusalOfTheDriverIsAFinding) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 test", "register 0 3 0"});
    machine.add_rules({"op=unmap,errno=EIO"});
    const auto outcome = tarvoctl(machine, {"unregister", "03:00.0", "--force"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(ends_with(
        outcome.errors, "tarvoctl: 0000:03:00.0 could not be unregistered; the reason is above\n"));
}

TEST(iommu_map, SendsOneRequestForTheWholeRegion) {
    sandbox machine(low);
    EXPECT_EQ(tarvoctl(machine, {"iommu-map", "03:00.0", "--prot", "r"}),
              printed("0000:03:00.0: whole region mapped, r\n"));
    EXPECT_EQ(tarvoctl(machine, {"iommu-map", "03:00.0"}).output,
              "0000:03:00.0: whole region mapped, rw\n");
    const auto undone = tarvoctl(machine, {"iommu-unmap", "03:00.0"});
    EXPECT_EQ(undone.status, 0);
    EXPECT_EQ(undone.output, "0000:03:00.0: whole region unmapped\n");
    EXPECT_EQ(undone.errors, "tarvo: Device not registered\n");
    EXPECT_EQ(machine.request_lines(),
              (std::vector<std::string>{"map 0 3 0 2147483648 2415919103 2147483648 1\n",
                                        "map 0 3 0 2147483648 2415919103 2147483648 3\n",
                                        "unmap 0 3 0 2147483648 2415919103 2147483648 0\n"}));
}

TEST(iommu_map, ARefusalOfTheDriverIsAFinding) {
    sandbox machine(low, {"--rule", "op=map,errno=ENODEV"});
    const auto outcome = tarvoctl(machine, {"iommu-map", "03:00.0"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(ends_with(outcome.errors,
                          "tarvoctl: the request for 0000:03:00.0 failed; the reason is above\n"));
}

TEST(iommu_map, ARegionThatCannotBeMappedWholeIsNotTried) {
    sandbox machine(high, {"--region", "200000000-27fffffff"});
    EXPECT_EQ(tarvoctl(machine, {"iommu-map", "03:00.0"}),
              failed(1, "the region has 2 GiB; only one of less than 2 GiB can be mapped whole. "
                        "'tarvoctl register' maps each chunk"));
    EXPECT_EQ(machine.request_lines(), std::vector<std::string>{});
}

TEST(iommu_unmap, DoesNotUnregisterADeviceByTheWay) {
    sandbox machine(low);
    const client driver = machine.start({"register 0 3 0"});
    EXPECT_EQ(
        tarvoctl(machine, {"iommu-unmap", "03:00.0"}),
        failed(2, "0000:03:00.0 is registered, and the library would unregister it and leave the "
                  "whole region mapped; do that first: tarvoctl unregister 0000:03:00.0"));
    EXPECT_EQ(machine.area().view().devices().size(), 1);
}

/// Ends the tool by that signal in the middle of a registration.
ending end_while_registering(sandbox& machine, int signal) {
    constexpr int early_chunk = 20;
    const auto area = machine.area();
    running_tool tool = start_tarvoctl(machine, {"register", "0000:03:00.0"});
    while (area.view().chunk(early_chunk).devs.head == -1 &&
           !tool.program.has_line(std::chrono::milliseconds(1))) {
    }
    return tool.end_by(signal);
}

TEST(registering, IsCompleteBeforeASignalEndsIt) {
    constexpr int chunks = 6000;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sandbox machine(low);
        client driver = machine.start();
        driver.fill("c", chunks);
        const ending end = end_while_registering(machine, signal);
        EXPECT_EQ(end.signal, signal);
        driver.limits(); // after the end of whoever has the lock
        EXPECT_EQ(machine.request_lines().size(), static_cast<size_t>(chunks));
        const auto area = machine.area();
        EXPECT_EQ(area_breaches(area.view()), std::vector<std::string>{});
        for (const auto& chunk : area.view().chunks()) {
            if (chunk.size != 0) { // those that bound the region have no list
                ASSERT_EQ(area.view().refs(chunk.index).size(), 1U) << chunk.name;
            }
        }
    }
}

TEST(registering, ASignalEndsWorkThatChangesNothingAtOnce) {
    sandbox machine(low);
    client driver = machine.start({"alloc a 1 me"});
    running_tool tool = start_tarvoctl(machine, {"write", "a"}); // waits for its input
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(tool.end_by(SIGINT).signal, SIGINT);
}

} // namespace

} // namespace registration_test
