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
    a_new_chunk() {
        for (const pci_device& device : {first, second}) {
            EXPECT_EQ(user.register_device(device.domain, device.bus, device.devfn), 0);
        }
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
    void expect_death(const std::string& last_words, const texts& lines) {
        EXPECT_EQ(fatal_outcome(user, allocation), aborted(last_words));
        EXPECT_EQ(machine.request_lines(), lines);
        EXPECT_EQ(layout(machine), "");
        EXPECT_EQ(troubles(machine), texts{});
        EXPECT_EQ(machine.cma_commands(), region().cma ? texts{"a rx_ring 3000\n"} : texts{});
    }

    const std::string allocation = "alloc rx_ring 12288 me";
    const chunk_place place{region().start, 12288};
};

TEST_P(a_new_chunk, RefusedByTheFirstDeviceEndsTheProcessInATranslationKeptOnPurpose) {
    machine.add_rules({rule(first, "errno=EIO")});
    // Later devices are not tried, and nothing is sent for the cleared record.
    expect_death(refusal(first, EIO) + refused + not_in_the_region(), {line("map", first)});
}

TEST_P(a_new_chunk, RefusedByALaterDeviceIsUnmappedFromTheEarlierOnesFirst) {
    machine.add_rules({rule(second, "errno=EIO")});
    expect_death(refusal(second, EIO) + refused + not_in_the_region(),
                 {line("map", first), line("map", second), line("unmap", first)});
}

TEST_P(a_new_chunk, RefusedWhileTheFirstRecordHasNoDeviceEndsTheProcessInTheListKeptOnPurpose) {
    EXPECT_EQ(user.unregister_device(first.domain, first.bus, first.devfn), 0);
    machine.add_rules({rule(second, "errno=EIO")});
    expect_death(refusal(second, EIO) + refused + element_not_in_use(), {line("map", second)});
}

TEST_P(a_new_chunk, RefusedWhileTheFirstDeviceIsOfflineEndsTheProcessInTheListKeptOnPurpose) {
    machine.add_rules({rule(first, "errno=ENODEV"), rule(second, "errno=EINVAL")});
    expect_death(refusal(first, ENODEV) + refusal(second, EINVAL) +
                     "Error IOMMU mapping chunk Invalid argument\n" + element_not_in_use(),
                 {line("map", first), line("map", second)});
}

TEST_P(a_new_chunk, RefusedIsTracedInTheNamesOfTheRequestAndTheAllocation) {
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

INSTANTIATE_TEST_SUITE_P(, a_new_chunk, testing::ValuesIn(all_worlds()), world_name());

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
