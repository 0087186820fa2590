// A new chunk is mapped for every device that is online, and what happens where one refuses.

#include "iommu_request.hpp"
#include "world_test.hpp"

#include <cerrno>

namespace allocate_devices_test {

namespace {

constexpr pci_device first{0, 3, 0};
constexpr pci_device second{1, 0x82, 0xf9};
constexpr const char* refused = "Error IOMMU mapping chunk Input/output error\n";

class a_new_chunk : public world_test {
  protected:
    void add(const pci_device& device) {
        EXPECT_EQ(user.register_device(device.domain, device.bus, device.devfn), 0);
    }

    void drop(const pci_device& device) {
        EXPECT_EQ(user.unregister_device(device.domain, device.bus, device.devfn), 0);
    }

    static std::string rule(const pci_device& device, const std::string& answer) {
        return "op=map,device=" + device.name() + "," + answer;
    }

    std::string line(const std::string& op, const pci_device& device) const {
        return chunk_request(op, device, region(), place).line();
    }

    std::string refusal(const pci_device& device, int error) const {
        return chunk_refusal("map", device, region(), place, error);
    }

    /// Nothing of the chunk is left on record, and the driver of a CMA region keeps its memory.
    void expect_gone() {
        EXPECT_EQ(layout(machine), "");
        EXPECT_EQ(troubles(machine), texts{});
        EXPECT_EQ(machine.cma_commands(), region().cma ? texts{"a rx_ring 3000\n"} : texts{});
    }

    const std::string allocation = "alloc rx_ring 12288 me";
    const chunk_place place{region().start, 12288};
};

TEST_P(a_new_chunk, IsMappedForEachDeviceInOrderOfRegistration) {
    add(first);
    add(second);
    EXPECT_EQ(user.alloc("rx_ring", 12288), region().start_dma);
    EXPECT_EQ(machine.request_lines(), (texts{line("map", first), line("map", second)}));
    const std::vector<area_ref> refs = machine.area().view().refs(2);
    ASSERT_EQ(refs.size(), 2U);
    EXPECT_EQ(refs[0].dev, 0);
    EXPECT_EQ(refs[1].dev, 1);
    EXPECT_EQ(troubles(machine), texts{});
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(a_new_chunk, IsMappedUnderTheLock) {
    add(first);
    user.call("calls");
    user.alloc("rx_ring", 12288);
    const std::string calls = user.call("calls");
    EXPECT_TRUE(calls.starts_with(taken())) << calls;
    EXPECT_NE(calls.find("fopen(/sys/kernel/tarvo_iommu_map_region,we)=pointer setvbuf(2,0)=0 "
                         "fclose(stream)=0" +
                         released() + " mmap64("),
              std::string::npos)
        << calls;
}

TEST_P(a_new_chunk, IsGoodWhereADeviceIsGoneWhichIsThenOffline) {
    for (const auto& [name, error] : {std::pair{"ENODEV", ENODEV}, {"EUNATCH", EUNATCH}}) {
        sandbox fresh(region(), {"--rule", rule(first, std::string("errno=") + name)});
        client allocating = fresh.start({"register 0 3 0", "register 1 0x82 0xf9"});
        EXPECT_EQ(allocating.alloc("rx_ring", 12288), region().start_dma);
        EXPECT_EQ(allocating.new_text(), refusal(first, error));
        EXPECT_EQ(fresh.area().view().device(0).online, 0);
        EXPECT_EQ(fresh.area().view().refs(2).size(), 1U);
        // The next chunk is not even tried.
        allocating.alloc("tx_ring", 4096);
        const texts lines = fresh.request_lines();
        EXPECT_EQ(lines.size(), 3U);
        EXPECT_EQ(lines.front(), line("map", first));
        EXPECT_EQ(allocating.new_text(), "");
    }
}

TEST_P(a_new_chunk, IsGoodWhereTheKernelHasNoIommu) {
    add(first);
    machine.add_rules({"op=map,errno=ENOSYS"});
    EXPECT_EQ(user.alloc("rx_ring", 12288), region().start_dma);
    EXPECT_EQ(user.error_text(), "");
    EXPECT_EQ(machine.area().view().refs(2).size(), 1U);
}

TEST_P(a_new_chunk, RefusedByTheFirstDeviceEndsTheProcessInATranslationKeptOnPurpose) {
    add(first);
    add(second);
    machine.add_rules({rule(first, "errno=EIO")});
    EXPECT_EQ(fatal_outcome(user, allocation),
              aborted(refusal(first, EIO) + refused + not_in_the_region()));
    // Later devices are not tried, and nothing is sent for the cleared record.
    EXPECT_EQ(machine.request_lines(), texts{line("map", first)});
    expect_gone();
}

TEST_P(a_new_chunk, RefusedByALaterDeviceIsUnmappedFromTheEarlierOnesFirst) {
    add(first);
    add(second);
    machine.add_rules({rule(second, "errno=EIO")});
    EXPECT_EQ(fatal_outcome(user, allocation),
              aborted(refusal(second, EIO) + refused + not_in_the_region()));
    EXPECT_EQ(machine.request_lines(),
              (texts{line("map", first), line("map", second), line("unmap", first)}));
    expect_gone();
}

TEST_P(a_new_chunk, RefusedWhileTheFirstRecordHasNoDeviceEndsTheProcessInTheListKeptOnPurpose) {
    add(first);
    add(second);
    drop(first);
    machine.add_rules({rule(second, "errno=EIO")});
    EXPECT_EQ(fatal_outcome(user, allocation),
              aborted(refusal(second, EIO) + refused + element_not_in_use()));
    EXPECT_EQ(machine.request_lines(), texts{line("map", second)});
    expect_gone();
}

TEST_P(a_new_chunk, RefusedWhileTheFirstDeviceIsOfflineEndsTheProcessInTheListKeptOnPurpose) {
    add(first);
    add(second);
    machine.add_rules({rule(first, "errno=ENODEV"), rule(second, "errno=EINVAL")});
    EXPECT_EQ(fatal_outcome(user, allocation),
              aborted(refusal(first, ENODEV) + refusal(second, EINVAL) +
                      "Error IOMMU mapping chunk Invalid argument\n" + element_not_in_use()));
    EXPECT_EQ(machine.request_lines(), (texts{line("map", first), line("map", second)}));
    expect_gone();
}

TEST_P(a_new_chunk, RefusedIsTracedInTheNamesOfTheRequestAndTheAllocation) {
    add(first);
    machine.add_rules({"op=map,errno=EIO"});
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3"});
    const std::string report = chunk_failure("map", first, region(), place);
    EXPECT_EQ(
        fatal_outcome(watched, allocation),
        aborted(chunk_request("map", first, region(), place).refusal(EIO) +
                "[tarvo:3] tarvo:LINE map_unmap_chunk: " + report + report + refused +
                traced(3, "tarvo_alloc_func",
                       "tarvo_alloc_func: Alloc failed due to IOMMU mapping error for rx_ring") +
                not_in_the_region()));
}

TEST_P(a_new_chunk, RefusedLeavesOtherChunksAndOtherProcessesAlone) {
    client other = machine.start();
    EXPECT_EQ(other.alloc("before", 4096), region().start_dma);
    add(first);
    machine.add_rules({"op=map,errno=EIO,nth=1"});
    EXPECT_EQ(user.dies(allocation), ended_by(SIGABRT));
    EXPECT_EQ(layout(machine), "before:0+1");
    const uint32_t after = region().start_dma + 4096;
    EXPECT_EQ(other.alloc("tx_ring", 4096), region().cma ? after + 12288 : after);
    EXPECT_EQ(other.error_text(), "");
    EXPECT_EQ(troubles(machine), texts{});
}

INSTANTIATE_TEST_SUITE_P(, a_new_chunk, testing::ValuesIn(all_worlds()), world_name());

TEST(a_request_file_that_will_not_open, RefusesEveryNewChunk) {
    sandbox machine(low, {"--rule", "op=open-write,file=sysfs,errno=ENOENT"});
    client user = machine.start();
    EXPECT_EQ(user.register_device(0, 3, 0), 0);
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 4096 me"),
              aborted("tarvo: failed to open sysfs file: No such file or directory\n" +
                      chunk_failure("map", first, low, {0x80000000, 4096}) +
                      "Error IOMMU mapping chunk No such file or directory\n" +
                      not_in_the_region()));
    EXPECT_EQ(layout(machine), "");
}

/// A region in which a chunk of 2 GiB has room.
class a_huge_chunk : public testing::Test {
  protected:
    a_huge_chunk() {
        user.register_device(0, 3, 0);
        // So that no test writes gigabytes of zeros.
        user.call("fail mmap64 ENOMEM");
    }

    sandbox machine{high, {"--region", "200000000-2bfffffff"}};
    client user = machine.start();
};

TEST_F(a_huge_chunk, Of2GiBIsMapped) {
    EXPECT_EQ(fatal_outcome(user, "alloc huge 0x80000000 me"),
              aborted("tarvo_alloc: mmap failed!: Cannot allocate memory\n" + not_in_the_region()));
    EXPECT_EQ(machine.request_lines(), texts{"map 0 3 0 8589934592 10737418238 536870912 3\n"});
}

TEST_F(a_huge_chunk, OfMoreThan2GiBEndsTheProcessBeforeAnythingIsSent) {
    EXPECT_EQ(
        fatal_outcome(user, "alloc huge 0x80000001 me"),
        aborted(assertion("iommu_mapping_t::iommu_mapping_t(int64_t, int64_t, int32_t, int32_t)",
                          "end_dma - start_dma == end_pa - start_pa")));
    EXPECT_EQ(machine.driver_log(), (texts{"proc open r", "proc close"}));
    // What was half done stays.
    EXPECT_EQ(layout(machine), "huge:0+524289");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

} // namespace

} // namespace allocate_devices_test
