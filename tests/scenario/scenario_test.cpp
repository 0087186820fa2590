// What two programs do to one region: the same steps with the same outcome in every world, whether
// their words have 64 or 32 bits. All that the driver is asked is compared at the end of each test.

#include "dump_lines.hpp"
#include "iommu_request.hpp"

#include <cerrno>
#include <fstream>
#include <ostream>

namespace {

constexpr pci_device network{0, 3, 0};
constexpr pci_device storage{1, 0x82, 0xf9};
constexpr const char* input_output_error = "Input/output error\n";

struct setting {
    world place;
    int one_bits;
    int other_bits;
};

std::ostream& operator<<(std::ostream& stream, const setting& s) {
    return stream << s.place << " with " << s.one_bits << " and " << s.other_bits << " bits";
}

struct setting_name {
    template <typename Info>
    std::string operator()(const Info& info) const {
        const setting& s = info.param;
        return std::string(s.place.name) + "_" + std::to_string(s.one_bits) + "_and_" +
               std::to_string(s.other_bits);
    }
};

std::vector<setting> all_settings() {
    std::vector<setting> all;
    for (const world& place : all_worlds()) {
        for (const auto& [one_bits, other_bits] : {std::pair{64, 64}, {64, 32}, {32, 64}}) {
            all.push_back({place, one_bits, other_bits});
        }
    }
    return all;
}

/// As the head of the program's file has it.
int word_bits(client& user) {
    constexpr size_t class_offset = 4;
    std::ifstream program("/proc/" + std::to_string(user.pid()) + "/exe", std::ios::binary);
    std::string head(class_offset + 1, '\0');
    program.read(head.data(), static_cast<std::streamsize>(head.size()));
    return 32 * head[class_offset];
}

class scenario : public testing::TestWithParam<setting> {
  protected:
    void TearDown() override {
        EXPECT_EQ(machine.request_lines(), requests);
        EXPECT_EQ(machine.cma_commands(), region().cma ? commands : texts{});
        EXPECT_EQ(troubles(machine), texts{});
    }

    static const world& region() { return GetParam().place; }

    /// Memory of the region from one page on.
    static chunk_place place(uint64_t first_page, uint64_t page_count) {
        return {region().start + pages(first_page), static_cast<uint32_t>(pages(page_count))};
    }
    static uint32_t dma(uint64_t page) { return region().dma(region().start + pages(page)); }
    static std::string described(const char* permissions, const chunk_place& memory) {
        return std::string(permissions) + " 0x" + hex(memory.pa) + " " +
               std::to_string(memory.size) + " " + region().memory_path();
    }

    /// Allocates a chunk that is new, and expects the driver to be asked for its memory.
    uint32_t allocate(client& by, const std::string& name, uint64_t page_count) {
        commands.push_back("a " + name + " " + hex(pages(page_count)) + "\n");
        return by.alloc(name, pages(page_count));
    }
    int release(client& by, const std::string& name, uint64_t page_count) {
        commands.push_back("r " + name + " " + hex(pages(page_count)) + "\n");
        return by.free(name);
    }
    /// Registers a device, and expects these chunks to be mapped for it.
    int add(client& by, const pci_device& device, const std::vector<chunk_place>& mapped = {}) {
        expect("map", {device}, mapped);
        return by.register_device(device.domain, device.bus, device.devfn);
    }
    /// Unregisters it, and expects these to be unmapped.
    int drop(client& by, const pci_device& device, const std::vector<chunk_place>& unmapped = {}) {
        expect("unmap", {device}, unmapped);
        return by.unregister_device(device.domain, device.bus, device.devfn);
    }
    static std::string raw(const std::string& command, const pci_device& device) {
        return command + " " + std::to_string(device.domain) + " " + std::to_string(device.bus) +
               " " + std::to_string(device.devfn);
    }

    /// From here on those devices are asked for those chunks, device by device.
    void expect(const std::string& op, const std::vector<pci_device>& devices,
                const std::vector<chunk_place>& chunks) {
        const texts lines = chunk_lines(op, devices, region(), chunks);
        requests.insert(requests.end(), lines.begin(), lines.end());
    }
    void expect(const iommu_request& request) { requests.push_back(request.line()); }

    /// No process said a word since this was last asked.
    void expect_silence() {
        EXPECT_EQ(one.new_text(), "");
        EXPECT_EQ(other.new_text(), "");
    }

    /// The devices that the chunk of that name is mapped for, by record number.
    std::vector<int> devices_of(const std::string& name) const {
        const area_file area = machine.area();
        std::vector<int> devices;
        for (const area_chunk& chunk : area.view().chunks()) {
            for (const area_ref& ref :
                 chunk.name == name ? area.view().refs(chunk.index) : std::vector<area_ref>{}) {
                devices.push_back(ref.dev);
            }
        }
        return devices;
    }

    /// The devices as a listing shows them.
    static texts states(client& by) {
        texts lines = by.dump();
        std::erase_if(lines, [](const std::string& line) { return !line.ends_with("line"); });
        return lines;
    }

    static std::string poke(client& by, uint64_t va, uint64_t offset, const std::string& text) {
        return by.call("poke " + std::to_string(va) + " " + std::to_string(offset) + " " + text);
    }
    /// Five bytes in hexadecimal.
    static std::string peek(client& by, uint64_t va, uint64_t offset) {
        return by.call("peek " + std::to_string(va) + " " + std::to_string(offset) + " 5");
    }

    client start(int bits) {
        return bits == 64 ? machine.start() : machine.start_program({TARVO_CLIENT_I386});
    }

    sandbox machine{region()};
    client one = start(GetParam().one_bits);
    client other = start(GetParam().other_bits);
    texts requests; ///< that the IOMMU's driver is expected to have got when the test ends
    texts commands; ///< likewise the allocator's driver, where there is one
};

TEST_P(scenario, ProgramsHaveTheWordsTheyAreSaidToHave) {
    EXPECT_EQ(one.limits(), other.limits());
    EXPECT_EQ(word_bits(one), GetParam().one_bits);
    EXPECT_EQ(word_bits(other), GetParam().other_bits);
}

TEST_P(scenario, AChunkIsAllocatedByOneAndSharedByTheOther) {
    EXPECT_EQ(one.limits(), (dma_limits{0, region().start_dma, region().end_dma()}));
    EXPECT_EQ(other.limits(), one.limits());
    EXPECT_EQ(one.call("overhead"), other.call("overhead"));
    EXPECT_EQ(allocate(one, "rx_ring", 2), dma(0));
    EXPECT_EQ(allocate(other, "tx_ring", 1), dma(2));
    // The same size once it is rounded, and nothing is asked for.
    EXPECT_EQ(other.alloc("rx_ring", pages(1) + 1, "someone else"), dma(0));
    EXPECT_EQ(one.alloc("tx_ring", 1, "someone else"), dma(2));
    EXPECT_EQ(layout(machine), "rx_ring:0+2 tx_ring:2+1");
    EXPECT_EQ(machine.area().view().chunk(2).creator, "test");
    for (client* user : {&one, &other}) {
        EXPECT_EQ(user->find(dma(1) + 5), (found_chunk{"rx_ring", dma(0)}));
        EXPECT_EQ(user->find(dma(2)), (found_chunk{"tx_ring", dma(2)}));
        EXPECT_EQ(user->find(dma(3)), (found_chunk{std::nullopt, 0}));
        EXPECT_EQ(user->to_pa(dma(2) + 7), place(2, 1).pa + 7);
        EXPECT_EQ(user->to_dma(place(2, 1).pa + 7), dma(2) + 7);
    }
    expect_silence();
}

TEST_P(scenario, WindowsOfAChunkShowOneMemoryToBoth) {
    allocate(one, "before", 1);
    allocate(one, "rx_ring", 4);
    const uint64_t whole = one.map("rx_ring");
    const uint64_t window = other.map("rx_ring", false, pages(2), pages(1));
    EXPECT_EQ(one.call("mapping " + std::to_string(whole)), described("rw-s", place(1, 4)));
    EXPECT_EQ(other.call("mapping " + std::to_string(window)), described("r--s", place(3, 1)));
    poke(one, whole, pages(2) + 10, "frame");
    EXPECT_EQ(peek(other, window, 10), "6672616d65");

    EXPECT_EQ(one.unmap("rx_ring", whole), 0);
    EXPECT_EQ(one.call("mapping " + std::to_string(whole)), "none");
    EXPECT_EQ(peek(other, window, 10), "6672616d65");
    EXPECT_EQ(other.unmap("rx_ring", window, pages(1)), 0);
    EXPECT_EQ(other.call("mapping " + std::to_string(window)), "none");
    expect_silence();

    for (client* user : {&one, &other}) {
        EXPECT_EQ(outcome(*user, "map rx_ring 1 0x3000 0x2000"),
                  "null\n offset 3000 > chunk->size 4000 or offset + size 5000 is \n");
        EXPECT_EQ(outcome(*user, "map rx_ring 1 0x1000 0xfffff800"),
                  "null\n offset 1000 > chunk->size 4000 or offset + size 800 is \n");
    }
}

TEST_P(scenario, FreedMemoryIsGivenOutAgainAndIsZero) {
    allocate(one, "a", 1);
    allocate(other, "b", 2);
    allocate(one, "c", 1);
    const uint64_t old = one.map("b");
    poke(one, old, 0, "frame");
    EXPECT_EQ(release(one, "b", 2), 0);
    EXPECT_EQ(other.map("b"), 0U);
    EXPECT_EQ(other.free("b"), -1);
    EXPECT_EQ(peek(one, old, 0), "6672616d65");
    // The gap is too small for the first and large enough for the second.
    EXPECT_EQ(allocate(one, "d", 3), dma(4));
    EXPECT_EQ(allocate(other, "e", 2), dma(1));
    EXPECT_EQ(peek(one, old, 0), "0000000000");
    EXPECT_EQ(layout(machine), "a:0+1 e:1+2 c:3+1 d:4+3");
    for (const auto& [name, count] : {std::pair{"a", 1U}, {"c", 1U}, {"d", 3U}, {"e", 2U}}) {
        EXPECT_EQ(release(other, name, count), 0);
    }
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(allocate(one, "all", 7), dma(0));
    expect_silence();
}

TEST_P(scenario, RegisteredDevicesSeeEveryChunkOfBoth) {
    allocate(one, "rx_ring", 2);
    allocate(other, "tx_ring", 1);
    EXPECT_EQ(add(one, network, {place(0, 2), place(2, 1)}), 0);
    EXPECT_EQ(add(other, storage, {place(0, 2), place(2, 1)}), 0);
    EXPECT_EQ(allocate(other, "stats", 1), dma(3));
    expect("map", {network, storage}, {place(3, 1)});
    EXPECT_EQ(devices_of("stats"), (std::vector<int>{0, 1}));
    EXPECT_EQ(release(one, "tx_ring", 1), 0);
    expect("unmap", {network, storage}, {place(2, 1)});
    // What is mapped already is mapped again, and stands once on record.
    EXPECT_EQ(add(other, network, {place(0, 2), place(3, 1)}), 0);
    EXPECT_EQ(devices_of("rx_ring"), (std::vector<int>{0, 1}));
    expect_silence();
}

TEST_P(scenario, ADeviceThatRefusesWhenRegisteredIsRegisteredAndMappedForNothing) {
    allocate(one, "rx_ring", 1);
    allocate(one, "tx_ring", 1);
    machine.add_rules({"op=map,nth=2,errno=EIO"});
    EXPECT_EQ(add(other, network, {place(0, 1), place(1, 1)}), -1);
    expect("unmap", {network}, {place(0, 1)});
    EXPECT_EQ(other.new_text(), chunk_refusal("map", network, region(), place(1, 1), EIO) +
                                    "Error IOMMU mapping chunk " + input_output_error +
                                    "tarvo: tarvo_register_device: failed to map chunk\n");
    EXPECT_EQ(devices_of("rx_ring"), std::vector<int>{});
    EXPECT_EQ(states(one), (texts{network.name() + ": online"}));

    EXPECT_EQ(add(one, network, {place(0, 1), place(1, 1)}), 0);
    EXPECT_EQ(devices_of("tx_ring"), (std::vector<int>{0}));
    expect_silence();
}

TEST_P(scenario, ADeviceThatRefusesANewChunkEndsTheProgramAndNotTheOther) {
    allocate(one, "rx_ring", 1);
    add(one, network, {place(0, 1)});
    machine.add_rules({"op=map,nth=1,errno=EIO"});
    commands.emplace_back("a tx_ring 2000\n");
    EXPECT_EQ(fatal_outcome(other, "alloc tx_ring 8192 me"),
              aborted(chunk_refusal("map", network, region(), place(1, 2), EIO) +
                      "Error IOMMU mapping chunk " + input_output_error + not_in_the_region()));
    expect("map", {network}, {place(1, 2)});
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
    // The memory that the driver of a CMA region gave is lost.
    const uint64_t next_page = region().cma ? 3 : 1;
    EXPECT_EQ(allocate(one, "stats", 1), dma(next_page));
    expect("map", {network}, {place(next_page, 1)});
    EXPECT_EQ(one.new_text(), "");
}

TEST_P(scenario, ADeviceThatRefusesToUnmapKeepsTheChunkListedButNotForItself) {
    allocate(one, "rx_ring", 1);
    add(other, network, {place(0, 1)});
    machine.add_rules({"op=unmap,nth=1,errno=EIO"});
    EXPECT_EQ(release(other, "rx_ring", 1), -1);
    expect("unmap", {network}, {place(0, 1)});
    EXPECT_EQ(other.new_text(), chunk_refusal("unmap", network, region(), place(0, 1), EIO) +
                                    "Error IOMMU unmapping chunk " + input_output_error);
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
    EXPECT_EQ(devices_of("rx_ring"), std::vector<int>{});
    EXPECT_EQ(release(one, "rx_ring", 1), 0);
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(one.new_text(), "");
}

TEST_P(scenario, ADeviceThatIsGoneIsOfflineUntilTheOtherRegistersItAgain) {
    add(one, network);
    add(other, storage);
    allocate(one, "rx_ring", 1);
    expect("map", {network, storage}, {place(0, 1)});
    machine.add_rules({"op=map,device=" + network.name() + ",nth=1,errno=ENODEV"});
    EXPECT_EQ(allocate(other, "tx_ring", 1), dma(1));
    expect("map", {network, storage}, {place(1, 1)});
    EXPECT_EQ(other.new_text(), chunk_refusal("map", network, region(), place(1, 1), ENODEV));
    EXPECT_EQ(states(one), (texts{network.name() + ": offline", storage.name() + ": online"}));
    EXPECT_EQ(devices_of("tx_ring"), (std::vector<int>{1}));
    EXPECT_EQ(allocate(one, "stats", 1), dma(2));
    expect("map", {storage}, {place(2, 1)});
    EXPECT_EQ(release(other, "rx_ring", 1), 0);
    expect("unmap", {storage}, {place(0, 1)});

    EXPECT_EQ(add(other, network, {place(1, 1), place(2, 1)}), 0);
    EXPECT_EQ(states(one), (texts{network.name() + ": online", storage.name() + ": online"}));
    EXPECT_EQ(devices_of("tx_ring"), (std::vector<int>{1, 0}));
    expect_silence();
}

TEST_P(scenario, ADeviceIsUnregisteredByTheOtherAndThenUnknown) {
    allocate(one, "rx_ring", 1);
    allocate(other, "tx_ring", 1);
    add(one, network, {place(0, 1), place(1, 1)});
    machine.add_rules({"op=unmap,nth=1,errno=EIO"});
    // The rest is unmapped all the same, and the second attempt has one chunk left.
    EXPECT_EQ(drop(other, network, {place(0, 1), place(1, 1)}), -1);
    EXPECT_EQ(other.new_text(), chunk_refusal("unmap", network, region(), place(0, 1), EIO) +
                                    "tarvo: Error unmapping all chunks\n");
    EXPECT_EQ(states(one), (texts{network.name() + ": online"}));
    EXPECT_EQ(drop(other, network, {place(0, 1)}), 0);
    EXPECT_EQ(states(one), texts{});
    EXPECT_EQ(drop(one, network), -2);
    EXPECT_EQ(one.new_text(), "tarvo: Device not registered\n");
    EXPECT_EQ(other.new_text(), "");
}

TEST_P(scenario, WhatAnOfflineDeviceLeavesBehindIsInheritedKeptOnPurpose) {
    allocate(one, "rx_ring", 1);
    add(one, network, {place(0, 1)});
    machine.add_rules({"op=map,nth=1,errno=EUNATCH"});
    allocate(other, "tx_ring", 1);
    expect("map", {network}, {place(1, 1)});
    EXPECT_EQ(other.new_text(), chunk_refusal("map", network, region(), place(1, 1), EUNATCH));
    EXPECT_EQ(drop(other, network), 0);
    EXPECT_EQ(devices_of("rx_ring"), (std::vector<int>{0}));
    EXPECT_EQ(add(one, storage, {place(0, 1), place(1, 1)}), 0);
    EXPECT_EQ(devices_of("rx_ring"), (std::vector<int>{0}));
    EXPECT_EQ(states(other), (texts{storage.name() + ": online"}));
    expect_silence();
}

TEST_P(scenario, AListingMakesTheOtherWaitAndShowsOnePicture) {
    allocate(one, "rx_ring", 3);
    add(other, network, {place(0, 3)});
    EXPECT_EQ(one.call("dump_begin"), "true");
    commands.emplace_back("a tx_ring 1000\n");
    other.send("alloc tx_ring 4096 \"the other\"");
    other.wait_until_it_waits_for_a_lock();
    EXPECT_EQ(one.call("dump_next 256"),
              reply_of(chunk_line(2, "rx_ring", "test", place(0, 3).pa, 0x3000)));
    EXPECT_EQ(one.call("dump_next 256"), "end");
    EXPECT_EQ(one.call("dump_next_device 256"), reply_of(network.name() + ": online"));
    EXPECT_EQ(one.call("dump_next_device 256"), "end");
    EXPECT_FALSE(other.has_replied());
    EXPECT_EQ(one.call("dump_end"), "0");
    EXPECT_EQ(other.reply(), "0x" + hex(dma(3)));
    expect("map", {network}, {place(3, 1)});
    EXPECT_EQ(other.dump(), (texts{chunk_line(2, "rx_ring", "test", place(0, 3).pa, 0x3000),
                                   chunk_line(3, "tx_ring", "the other", place(3, 1).pa, 0x1000),
                                   network.name() + ": online"}));
    EXPECT_EQ(other.dump(), one.dump());
    expect_silence();
}

TEST_P(scenario, TheWholeRegionIsMappedOnceAndCountedForEach) {
    allocate(one, "rx_ring", 1);
    allocate(other, "tx_ring", 1);
    const uint64_t window = one.map("tx_ring");
    for (client* user : {&one, &other}) {
        const std::string va = user->call("map_all");
        EXPECT_EQ(user->call("map_all"), va);
        const std::string whole = "rw-s 0x" + hex(region().start) + " " +
                                  std::to_string(region().bytes) + " " + region().memory_path();
        EXPECT_EQ(user->call("mapping " + va), whole);
        poke(*user, std::stoull(va, nullptr, 16), pages(1), "frame");
        EXPECT_EQ(peek(one, window, 0), "6672616d65");
        poke(one, window, 0, "empty");
        EXPECT_EQ(user->call("unmap_all"), "done");
        EXPECT_EQ(user->call("mapping " + va), whole);
        EXPECT_EQ(user->call("unmap_all"), "done");
        EXPECT_EQ(user->call("mapping " + va), "none");
    }
    expect_silence();
    for (client* user : {&one, &other}) {
        EXPECT_EQ(fatal_outcome(*user, "unmap_all"),
                  aborted(assertion("void tarvo_unmap_all()", "tarvo_mapall_va")));
    }
}

TEST_P(scenario, TheWholeRegionIsMappedForADeviceByOneRequest) {
    allocate(one, "rx_ring", 1);
    EXPECT_EQ(one.call(raw("iommu_map", network) + " 3"), "0");
    expect(region_request("map", network, region(), 3));
    EXPECT_EQ(other.call(raw("iommu_map", storage) + " 0x80000000"), "0");
    expect(region_request("map", storage, region(), 0x80000000));
    EXPECT_EQ(outcome(other, raw("iommu_unmap", network)), "0\ntarvo: Device not registered\n");
    expect(region_request("unmap", network, region(), 0));
    EXPECT_EQ(states(one), texts{});

    // A registered device is unregistered instead.
    add(one, storage, {place(0, 1)});
    EXPECT_EQ(other.call(raw("iommu_unmap", storage)), "0");
    expect("unmap", {storage}, {place(0, 1)});
    EXPECT_EQ(states(one), texts{});

    machine.add_rules({"op=map,nth=1,errno=ENODEV"});
    EXPECT_EQ(outcome(other, raw("iommu_map", network) + " 3"),
              "-1\n" + region_request("map", network, region(), 3).refusal(ENODEV));
    expect(region_request("map", network, region(), 3));
    EXPECT_EQ(one.new_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, scenario, testing::ValuesIn(all_settings()), setting_name());

} // namespace
