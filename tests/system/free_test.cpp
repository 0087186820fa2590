// Freeing: what is looked for, what changes, what is said.

#include "iommu_request.hpp"
#include "joined.hpp"
#include "world_test.hpp"

#include <cerrno>

namespace free_test {

namespace {

namespace offset = area_offset;

constexpr pci_device first{0, 3, 0};
constexpr pci_device second{0, 4, 8};
constexpr int tail = 1; ///< the element of __TAIL

class freeing : public world_test {
  protected:
    void alloc(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            EXPECT_NE(user.alloc(name, 4096), 0U);
        }
    }
};

TEST_P(freeing, AnUnknownNameFailsAndChangesNothing) {
    alloc({"rx_ring"});
    const std::vector<uint8_t> before = machine.area().snapshot();
    const texts log = machine.driver_log();
    for (const char* name : {"tx_ring", "RX_RING", "rx_rin", "rx_ring0", "__HEAD"}) {
        EXPECT_EQ(outcome(user, std::string("free ") + name), "-1\n") << name;
    }
    EXPECT_EQ(outcome(user, "free " + std::string(3000, 'n')), "-1\n");
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(machine.driver_log(), log);
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(freeing, TheOnlyChunkLeavesNoByteOfItInTheArea) {
    user.limits();
    const std::vector<uint8_t> before = machine.area().snapshot();
    alloc({"rx_ring"});
    EXPECT_EQ(outcome(user, "free rx_ring"), "0\n");
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(user.alloc("tx_ring", 4096), region().start_dma);
}

TEST_P(freeing, PutsTheRecordInFrontOfTheFreeOnesAndLinksItsNeighbours) {
    alloc({"a", "b", "c"});
    std::vector<uint8_t> expected = machine.area().snapshot();
    const area_writer area(expected);
    for (size_t i = 0; i < 4280; i++) {
        area.u8(offset::chunk(3) + i, 0);
    }
    area.i32(offset::chunk(3) + offset::next, 5);
    area.i32(offset::chunk(2) + offset::next, 4);
    area.i32(offset::chunk(4) + offset::prev, 2);
    area.i32(offset::chunks_free, 3);
    EXPECT_EQ(user.free("b"), 0);
    EXPECT_EQ(first_difference(machine.area().view().bytes(), expected), "");
}

TEST_P(freeing, IsDoneForEverybodyByAnybody) {
    alloc({"rx_ring"});
    client other = machine.start();
    EXPECT_EQ(other.alloc("rx_ring", 4096), region().start_dma);
    EXPECT_EQ(other.free("rx_ring"), 0);
    EXPECT_EQ(user.free("rx_ring"), -1);
    EXPECT_EQ(layout(machine), "");
}

TEST_P(freeing, TakesTheLockAndGivesItBack) {
    alloc({"rx_ring"});
    user.call("calls");
    user.free("tx_ring");
    EXPECT_EQ(user.call("calls"), only_the_lock());
    {
        const held_lock held(machine.lock_file());
        user.send("free rx_ring");
        user.wait_until_it_waits_for_a_lock();
        EXPECT_EQ(layout(machine), "rx_ring:0+1");
    }
    EXPECT_EQ(user.reply(), "0");
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(freeing, FindsNothingInAListThatEndsWithItsHead) {
    alloc({"rx_ring"});
    machine.writable_area().writer().i32(offset::chunks_tail, 0);
    EXPECT_EQ(outcome(user, "free rx_ring"), "-1\n");
    EXPECT_EQ(outcome(user, "free __TAIL"), "-1\n");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(, freeing, testing::ValuesIn(all_worlds()), world_name());

class coalescing : public world_test {};

TEST_P(coalescing, TheMiddleOfThreeLeavesAGapOfExactlyItsSize) {
    for (const char* name : {"a", "b", "c"}) {
        user.alloc(name, pages(2));
    }
    EXPECT_EQ(user.free("b"), 0);
    user.alloc("larger", pages(3));
    EXPECT_EQ(layout(machine), "a:0+2 c:4+2 larger:6+3");
    user.alloc("equal", pages(2));
    EXPECT_EQ(layout(machine), "a:0+2 equal:2+2 c:4+2 larger:6+3");
}

TEST_P(coalescing, NeighboursJoinInEveryOrder) {
    for (const auto& order : {std::vector{"a", "b", "c"}, {"c", "b", "a"}, {"a", "c", "b"}}) {
        for (const char* name : {"a", "b", "c"}) {
            user.alloc(name, pages(1));
        }
        user.alloc("d", pages(1));
        for (const char* name : order) {
            EXPECT_EQ(user.free(name), 0);
        }
        user.alloc("joined", pages(3));
        EXPECT_EQ(layout(machine), "joined:0+3 d:3+1");
        EXPECT_EQ(troubles(machine), texts{});
        user.free("joined");
    }
}

TEST_P(coalescing, FreesAChunkThatIsCalledLikeTheTailBeforeTheTail) {
    user.alloc("__TAIL", 4096);
    user.alloc("__HEAD", 4096);
    EXPECT_EQ(user.free("__TAIL"), 0);
    EXPECT_EQ(user.free("__HEAD"), 0);
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

INSTANTIATE_TEST_SUITE_P(, coalescing, testing::ValuesIn(region_worlds()), world_name());

class freeing_the_tail : public world_test {
  protected:
    freeing_the_tail() { user.limits(); }

    void expect_death(const std::string& last_words) {
        const std::vector<uint8_t> before = machine.area().snapshot();
        EXPECT_EQ(fatal_outcome(user, "free __TAIL"), aborted(last_words));
        EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
        EXPECT_EQ(troubles(machine), texts{});
        // A CMA driver is asked first, and has no such memory.
        EXPECT_EQ(machine.cma_commands(), region().cma ? texts{"r __TAIL 0\n"} : texts{});
    }

    const chunk_place place{region().end(), 0};
};

TEST_P(freeing_the_tail, EndsTheProcessInItsEmptyRecordKeptOnPurpose) {
    expect_death(element_not_in_use());
    EXPECT_EQ(machine.request_lines(), texts{});
}

TEST_P(freeing_the_tail, AsksTheFirstDeviceToUnmapItFirstKeptOnPurpose) {
    user.register_device(first.domain, first.bus, first.devfn);
    user.register_device(second.domain, second.bus, second.devfn);
    // Of no bytes the line's range ends before it begins, which no driver carries out.
    expect_death(chunk_refusal("unmap", first, region(), place, EINVAL) +
                 "Error IOMMU unmapping chunk Invalid argument\n" + element_not_in_use());
    EXPECT_EQ(machine.request_lines(), chunk_lines("unmap", {first}, region(), {place}));
}

TEST_P(freeing_the_tail, EndsTheProcessEvenIfTheDeviceRefuses) {
    user.register_device(first.domain, first.bus, first.devfn);
    machine.add_rules({"op=unmap,errno=EIO"});
    expect_death(chunk_refusal("unmap", first, region(), place, EIO) +
                 "Error IOMMU unmapping chunk Input/output error\n" + element_not_in_use());
}

TEST_P(freeing_the_tail, IsTracedLikeAnyChunk) {
    client watched = machine.start({"setenv ZUL_TRACE tarvo=5", "limits"});
    EXPECT_EQ(fatal_outcome(watched, "free __TAIL"),
              aborted(traced(5, "tarvo_free", "tarvo_free: name __TAIL") + element_not_in_use()));
}

TEST_P(freeing_the_tail, TakesItOffTheListWhereItsReferencesWereMadeEmptyKeptOnPurpose) {
    user.alloc("rx_ring", 4096);
    machine.writable_area().writer().i32(offset::chunk(tail) + offset::devs_head, -1);
    EXPECT_EQ(outcome(user, "free __TAIL"), "0\n");
    const area_ends ends = machine.area().view().chunk_ends();
    EXPECT_EQ(ends.tail, 2);
    EXPECT_EQ(ends.free, tail);
    // Without it there is no gap to be found, and freeing goes on until only the head is left.
    EXPECT_EQ(outcome(user, "alloc tx_ring 4096 me").substr(0, 4), "0x0\n");
    EXPECT_EQ(user.free("rx_ring"), 0);
    EXPECT_EQ(user.free("rx_ring"), -1);
    EXPECT_EQ(user.error_text(), "");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(, freeing_the_tail, testing::ValuesIn(all_worlds()), world_name());

class freeing_for_devices : public world_test {
  protected:
    freeing_for_devices() {
        user.register_device(first.domain, first.bus, first.devfn);
        user.register_device(second.domain, second.bus, second.devfn);
        user.alloc("rx_ring", 8192);
    }

    texts unmap_lines() const {
        const texts all = machine.request_lines();
        return {all.begin() + 2, all.end()};
    }

    const chunk_place place{region().start, 8192};
};

TEST_P(freeing_for_devices, UnmapsTheChunkUnderTheLock) {
    user.call("calls");
    EXPECT_EQ(outcome(user, "free rx_ring"), "0\n");
    EXPECT_EQ(unmap_lines(), chunk_lines("unmap", {first, second}, region(), {place}));
    const std::string calls = user.call("calls");
    EXPECT_TRUE(calls.starts_with(taken())) << calls;
    EXPECT_TRUE(calls.ends_with(joined(request_calls, " ", request_calls, released()))) << calls;
    EXPECT_EQ(layout(machine), "");
}

TEST_P(freeing_for_devices, FailsWhereOneRefusesAndKeepsTheChunkMappedForNoneKeptOnPurpose) {
    machine.add_rules({"op=unmap,errno=EIO,nth=1"});
    EXPECT_EQ(outcome(user, "free rx_ring"),
              "-1\n" + chunk_refusal("unmap", first, region(), place, EIO) +
                  "Error IOMMU unmapping chunk Input/output error\n");
    EXPECT_EQ(unmap_lines(), chunk_lines("unmap", {first, second}, region(), {place}));
    EXPECT_EQ(layout(machine), "rx_ring:0+2");
    EXPECT_TRUE(machine.area().view().refs(2).empty());
    EXPECT_EQ(troubles(machine), texts{});
    // The second attempt has nothing left to ask of a device.
    EXPECT_EQ(outcome(user, "free rx_ring"), "0\n");
    EXPECT_EQ(unmap_lines().size(), 2U);
    EXPECT_EQ(layout(machine), "");
}

INSTANTIATE_TEST_SUITE_P(, freeing_for_devices, testing::ValuesIn(all_worlds()), world_name());

TEST(freeing_without_a_start, SaysSoAndTracesNothingOfItsOwn) {
    sandbox machine(low, {"--without", "proc"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, "free rx_ring"), "-1\n" + no_region_at_all());
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3", "fail fopen ENOENT"});
    EXPECT_EQ(outcome(watched, "free rx_ring").find("tarvo_free"), std::string::npos);
}

} // namespace

} // namespace free_test
