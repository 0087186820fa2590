// A new chunk's memory is zero, and what happens where it cannot be zeroed.

#include "iommu_request.hpp"
#include "world_test.hpp"

#include <cerrno>

namespace allocate_memory_test {

namespace {

constexpr uint8_t old_content = 0xa5;

class new_memory : public world_test {
  protected:
    new_memory() { user.limits(); }

    /// An allocation whose memory cannot be mapped: how it ends, and its last words.
    std::string refused_mapping() {
        user.call("fail mmap64 ENOMEM");
        return fatal_outcome(user, "alloc rx_ring 8192 me");
    }
};

TEST_P(new_memory, IsZeroAndThatAroundItStays) {
    mapped_region region(user);
    user.alloc("before", 4096);
    region.fill(0, 5, old_content);
    user.alloc("rx_ring", 8192 + 1);
    EXPECT_TRUE(region.filled(0, 1, old_content));
    EXPECT_TRUE(region.filled(1, 3, 0));
    EXPECT_TRUE(region.filled(4, 1, old_content));
}

TEST_P(new_memory, IsZeroedAgainForTheNextChunkAndNotWhenTheLastIsFreed) {
    mapped_region region(user);
    user.alloc("rx_ring", 8192);
    region.fill(0, 3, old_content);
    user.free("rx_ring");
    EXPECT_TRUE(region.filled(0, 3, old_content));
    user.alloc("rx_ring", 4096);
    EXPECT_TRUE(region.filled(0, 1, 0));
    EXPECT_TRUE(region.filled(1, 2, old_content));
}

TEST_P(new_memory, IsMappedForDevicesUnderTheLockAndAtItsPhysicalAddressOnceThatIsFree) {
    user.register_device(0, 3, 0);
    user.call("calls");
    user.alloc("rx_ring", 8192);
    const std::string calls = user.call("calls");
    EXPECT_TRUE(calls.starts_with(taken())) << calls;
    EXPECT_TRUE(calls.ends_with(request_calls + released() + " mmap64(null,8192,3,1," +
                                memory_fd() + "," + std::to_string(region().start) +
                                ")=pointer munmap(pointer,8192)=0"))
        << calls;
}

TEST_P(new_memory, IsTheCallersEvenIfItCannotBeUnmapped) {
    user.call("fail munmap EINVAL");
    EXPECT_EQ(user.alloc("rx_ring", 8192), region().start_dma);
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(new_memory, ThatCannotBeMappedEndsTheProcessInTheRollBackKeptOnPurpose) {
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(refused_mapping(), aborted("tarvo_alloc: mmap failed!: Cannot allocate memory\n" +
                                         element_not_in_use()));
    // The record is gone again, its memory is not given back to the driver.
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(troubles(machine), texts{});
    EXPECT_EQ(machine.cma_commands(), region().cma ? texts{"a rx_ring 2000\n"} : texts{});
}

TEST_P(new_memory, ThatCannotBeMappedIsRolledBackEvenIfTheLockIsLostKeptOnPurpose) {
    user.call("fail flock EINTR 3");
    EXPECT_EQ(refused_mapping(),
              aborted("tarvo_alloc: mmap failed!: Cannot allocate memory\n"
                      "tarvo: failed to accquire lock: Interrupted system call\n" +
                      element_not_in_use()));
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(new_memory, ThatCannotBeMappedLeavesOtherChunksAlone) {
    client other = machine.start();
    other.alloc("before", 4096);
    other.alloc("behind", 4096);
    refused_mapping();
    EXPECT_EQ(layout(machine), "before:0+1 behind:1+1");
    // The driver of a CMA region still holds the other one's memory.
    EXPECT_EQ(other.alloc("tx_ring", 4096), region().start_dma + (region().cma ? 16384 : 8192));
    EXPECT_EQ(troubles(machine), texts{});
}

INSTANTIATE_TEST_SUITE_P(, new_memory, testing::ValuesIn(all_worlds()), world_name());

class mapped_new_memory : public new_memory {
  protected:
    const pci_device first{0, 3, 0};
    const pci_device second{0, 4, 8};
    const chunk_place place{region().start, 8192};

    static std::string reported(const std::string& last_words) {
        return aborted("tarvo_alloc: mmap failed!: Cannot allocate memory\n" + last_words);
    }
};

TEST_P(mapped_new_memory, RollsBackIntoTheTranslationWhileTheFirstDeviceIsOnlineKeptOnPurpose) {
    user.register_device(first.domain, first.bus, first.devfn);
    user.register_device(second.domain, second.bus, second.devfn);
    EXPECT_EQ(refused_mapping(), reported(not_in_the_region()));
    // What the devices see stays: no request undoes it.
    EXPECT_EQ(machine.request_lines(), chunk_lines("map", {first, second}, region(), {place}));
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(mapped_new_memory, RollsBackIntoTheListWhileOnlyAnotherDeviceIsRegistered) {
    user.register_device(first.domain, first.bus, first.devfn);
    user.register_device(second.domain, second.bus, second.devfn);
    user.unregister_device(first.domain, first.bus, first.devfn);
    EXPECT_EQ(refused_mapping(), reported(element_not_in_use()));
    EXPECT_EQ(machine.request_lines(), chunk_lines("map", {second}, region(), {place}));
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(mapped_new_memory, RollsBackIntoTheListWhileTheFirstDeviceIsOffline) {
    machine.add_rules({"op=map,errno=ENODEV,nth=1"});
    user.register_device(first.domain, first.bus, first.devfn);
    EXPECT_EQ(refused_mapping(), aborted(chunk_refusal("map", first, region(), place, ENODEV) +
                                         "tarvo_alloc: mmap failed!: Cannot allocate memory\n" +
                                         element_not_in_use()));
    EXPECT_EQ(machine.request_lines(), chunk_lines("map", {first}, region(), {place}));
    EXPECT_EQ(layout(machine), "");
}

INSTANTIATE_TEST_SUITE_P(, mapped_new_memory, testing::ValuesIn(all_worlds()), world_name());

} // namespace

} // namespace allocate_memory_test
