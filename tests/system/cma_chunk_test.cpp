// Chunks whose memory the kernel's contiguous memory allocator gives and takes back.

#include "iommu_request.hpp"
#include "observed.hpp"

#include <cerrno>
#include <gtest/gtest.h>

namespace cma_chunk_test {

namespace {

constexpr pci_device device{0, 3, 0};

class cma_chunk : public testing::Test {
  protected:
    /// What the driver was asked after the library's start.
    texts log() const {
        const texts whole = machine.driver_log();
        return {whole.begin() + 2, whole.end()};
    }

    sandbox machine{cma};
    client user = machine.start();
};

const texts allocation_log{"proc open w", "proc write: a rx_ring 2000\n", "proc close",
                           "proc open r", "proc close"};
const texts release_log{"proc open w", "proc write: r rx_ring 2000\n", "proc close"};

texts operator+(texts first, const texts& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// The events of one request for a chunk of two pages.
texts request_log(const char* op) {
    const std::string line = chunk_request(op, device, cma, {cma.start, 8192}).line();
    return {"sysfs open w", "sysfs write: " + line, "sysfs close"};
}

TEST_F(cma_chunk, IsAskedForAndLookedUpAndMappedAndGivenBackBeforeItIsUnmapped) {
    user.register_device(0, 3, 0);
    EXPECT_EQ(user.alloc("rx_ring", 5000), cma.start_dma);
    EXPECT_EQ(log(), allocation_log + request_log("map"));
    EXPECT_EQ(troubles(machine), texts{});
    EXPECT_EQ(user.free("rx_ring"), 0);
    EXPECT_EQ(log(), allocation_log + request_log("map") + release_log + request_log("unmap"));
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(user.error_text(), "");
}

TEST_F(cma_chunk, IsAskedForInOneWriteUnderTheLock) {
    user.limits();
    user.call("calls");
    user.alloc("rx_ring", 5000);
    EXPECT_TRUE(user.call("calls").starts_with(
        "flock(3,LOCK_EX)=0 fopen(/proc/tarvo,we)=pointer write(6,15)=15 fclose(stream)=0 "
        "fopen(/proc/tarvo,re)=pointer fclose(stream)=0 flock(3,LOCK_UN)=0 mmap64("));
    user.free("rx_ring");
    EXPECT_TRUE(user.call("calls").ends_with("flock(3,LOCK_EX)=0 fopen(/proc/tarvo,we)=pointer "
                                             "fclose(stream)=0 flock(3,LOCK_UN)=0"));
}

TEST_F(cma_chunk, LiesWhereTheDriverSays) {
    machine.add_rules({"op=allocate,name=high,address=0x13fff0000",
                       "op=allocate,name=low,address=0x100010000",
                       "op=allocate,name=middle,address=0x110000000"});
    EXPECT_EQ(user.alloc("high", 4096), 0x5fff0000U);
    EXPECT_EQ(user.alloc("low", 4096), 0x20010000U);
    EXPECT_EQ(user.alloc("middle", 4096), 0x30000000U);
    EXPECT_EQ(layout(machine), "low:16+1 middle:65536+1 high:262128+1");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_F(cma_chunk, MayOverlapTheOneAfterItKeptOnPurpose) {
    machine.add_rules({"op=allocate,name=behind,address=0x100004000",
                       "op=allocate,name=over,address=0x100003000"});
    user.alloc("behind", 4096);
    EXPECT_EQ(user.alloc("over", pages(3)), 0x20003000U);
    EXPECT_EQ(layout(machine), "over:3+3 behind:4+1");
    EXPECT_EQ(troubles(machine, {.overlap = true}), texts{});
    EXPECT_EQ(user.error_text(), "");
}

TEST_F(cma_chunk, MayBeginWhereAnotherEnds) {
    machine.add_rules({"op=allocate,name=behind,address=0x100001000"});
    user.alloc("first", 4096);
    EXPECT_EQ(user.alloc("behind", 4096), 0x20001000U);
    EXPECT_EQ(layout(machine), "first:0+1 behind:1+1");
}

struct misplaced {
    const char* address;
    const char* why;
};

TEST_F(cma_chunk, ThatHasNoPlaceInTheListIsGivenBack) {
    const std::vector<misplaced> cases{
        {"0xfffff000", "below the region"},
        {"0x140000000", "at its end"},
        {"0xfffffffffffff000", "far above it"},
        {"0x100000000", "where another one starts"},
        {"0x100001000", "inside another one"},
        {"0x100001fff", "in the last byte of another one"},
        {"0xffffffffffffffff", "what stands for a failure"},
    };
    user.alloc("other", 8192);
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3"});
    for (const misplaced& one : cases) {
        const std::vector<uint8_t> before = machine.area().snapshot();
        machine.replace_rules({std::string("op=allocate,address=") + one.address});
        EXPECT_EQ(outcome(user, "alloc rx_ring 5000 me"), "0x0\n") << one.why;
        EXPECT_EQ(outcome(watched, "alloc rx_ring 5000 me"),
                  "0x0\n" +
                      traced(3, "tarvo_alloc_func", "tarvo_alloc_func: ran out of tarvo space"))
            << one.why;
        EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "") << one.why;
        EXPECT_EQ(troubles(machine), texts{}) << one.why;
    }
    texts commands{"a other 2000\n"};
    for (size_t i = 0; i < 2 * cases.size(); i++) {
        commands.insert(commands.end(), {"a rx_ring 2000\n", "r rx_ring 2000\n"});
    }
    EXPECT_EQ(machine.cma_commands(), commands);
}

TEST_F(cma_chunk, AtAddress0IsTracedAndGivenBackKeptOnPurpose) {
    machine.add_rules({"op=allocate,address=0x0"});
    user.limits();
    const std::vector<uint8_t> before = machine.area().snapshot();
    EXPECT_EQ(outcome(user, "alloc rx_ring 5000 me"), "0x0\n");
    EXPECT_EQ(log(), allocation_log + release_log);
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(troubles(machine), texts{});
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3"});
    EXPECT_EQ(outcome(watched, "alloc rx_ring 5000 me"),
              "0x0\n" + traced(3, "tarvo_alloc_func", "Unable to allocate CMA memory"));
}

TEST_F(cma_chunk, ThatIsSharedIsNotAskedForAgain) {
    user.alloc("rx_ring", 5000);
    const texts before = log();
    client other = machine.start();
    EXPECT_EQ(other.alloc("rx_ring", 8192), cma.start_dma);
    const texts other_start{"proc open r", "proc close"};
    EXPECT_EQ(log(), before + other_start);
}

TEST_F(cma_chunk, OfAnotherSizeIsReleasedWithThatSizeWhichIsNotTheFirstOnes) {
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(outcome(user, "alloc rx_ring 8192 me"), std::string("0x0\n") + size_mismatch);
    EXPECT_EQ(machine.cma_commands(),
              (texts{"a rx_ring 1000\n", "a rx_ring 2000\n", "r rx_ring 2000\n"}));
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
}

TEST_F(cma_chunk, ThatTheDriverAlreadyHoldsIsTakenOver) {
    EXPECT_EQ(user.call("get_cma_allocation rx_ring 8192"), "0x100000000");
    EXPECT_EQ(outcome(user, "alloc rx_ring 5000 me"), "0x20000000\n");
    EXPECT_EQ(layout(machine), "rx_ring:0+2");
}

TEST_F(cma_chunk, OfASizeThatWrapsIsAskedForAllTheSame) {
    EXPECT_EQ(outcome(user, "alloc rx_ring 0xffffffff me"),
              "0x0\nError allocating CMA: Invalid argument\n");
    EXPECT_EQ(machine.cma_commands(), (texts{"a rx_ring 0\n", "r rx_ring 0\n"}));
    EXPECT_EQ(troubles(machine), texts{});
}

TEST(a_cma_driver_that_gives_no_bytes, EndsTheProcessWhenTheyAreZeroed) {
    sandbox machine(cma, {"--region-line", R"(100000000\t13fffffff\t0\tCMA\nrx_ring\t100000000\t0)",
                          "--rule", "op=any,file=proc,at=write,errno=EEXIST"});
    client user = machine.start();
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 0x100000000 me"),
              aborted("tarvo_alloc: mmap failed!: Invalid argument\n" + element_not_in_use()));
    EXPECT_EQ(machine.cma_commands(), texts{"a rx_ring 0\n"});
}

TEST_F(cma_chunk, ThatNobodyHasARecordForIsNotAskedFor) {
    user.limits();
    machine.writable_area().writer().i32(area_offset::chunks_free, -1);
    EXPECT_EQ(outcome(user, "alloc rx_ring 5000 me"), "0x0\n");
    EXPECT_EQ(machine.cma_commands(), texts{});
}

TEST(a_cma_release, ThatFailsIsNotTraced) {
    sandbox machine(cma, {"--rule", "op=open-write,file=proc,errno=EACCES,nth=2"});
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "alloc rx_ring 4096 me"});
    EXPECT_EQ(outcome(user, "free rx_ring"), "-1\nError opening /proc/tarvo: Permission denied\n");
    EXPECT_EQ(outcome(user, "free rx_ring"),
              "0\n" + traced(5, "tarvo_free", "tarvo_free: name rx_ring"));
}

TEST(a_cma_release, ThatTheDriverRefusesGoesUnreportedKeptOnPurpose) {
    for (const char* refusal : {"op=release,errno=EIO", "op=release,at=close,errno=EIO"}) {
        sandbox machine(cma, {"--rule", refusal});
        client user = machine.start({"alloc rx_ring 4096 me"});
        EXPECT_EQ(outcome(user, "free rx_ring"), "0\n") << refusal;
        EXPECT_EQ(machine.cma_commands().back(), "r rx_ring 1000\n") << refusal;
        EXPECT_EQ(layout(machine), "") << refusal;
        // The driver holds the name still, and gives the same memory out again.
        EXPECT_EQ(user.alloc("rx_ring", 4096), 0x20000000U) << refusal;
    }
}

TEST(a_cma_release, IsDoneEvenIfADeviceThenKeepsTheChunkListedKeptOnPurpose) {
    sandbox machine(cma, {"--rule", "op=unmap,errno=EIO"});
    client user = machine.start({"register 0 3 0", "alloc rx_ring 4096 me"});
    EXPECT_EQ(outcome(user, "free rx_ring"),
              "-1\n" + chunk_refusal("unmap", device, cma, {cma.start, 4096}, EIO) +
                  "Error IOMMU unmapping chunk Input/output error\n");
    EXPECT_EQ(machine.cma_commands(), (texts{"a rx_ring 1000\n", "r rx_ring 1000\n"}));
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
    // Once more, to a driver that no longer has it.
    EXPECT_EQ(outcome(user, "free rx_ring"), "0\n");
    EXPECT_EQ(machine.cma_commands().size(), 3U);
}

TEST(a_failed_start_with_cma, IsRememberedByASimulatedRegionKeptOnPurpose) {
    for (const bool has_memory : {false, true}) {
        sandbox machine(cma, has_memory ? texts{} : texts{"--without", "mem"});
        client user = machine.start(has_memory ? texts{"fail ftruncate EIO"} : texts{});
        EXPECT_EQ(user.limits().result, -1) << has_memory;
        user.call("setenv SIMULATION_VMID 1");
        EXPECT_EQ(user.limits(), (dma_limits{0, simulation.start_dma, simulation.end_dma()}))
            << has_memory;
        EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"), "0x0\n") << has_memory;
        EXPECT_EQ(machine.cma_commands(), (texts{"a rx_ring 1000\n", "r rx_ring 1000\n"}));
        client other = machine.start({"setenv SIMULATION_VMID 1"});
        EXPECT_EQ(outcome(other, "alloc rx_ring 4096 me"), "0x1000\n") << has_memory;
        EXPECT_EQ(machine.cma_commands().size(), 2U) << has_memory;
    }
}

} // namespace

} // namespace cma_chunk_test
