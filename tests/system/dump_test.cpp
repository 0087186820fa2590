// Listings of chunks and devices, line by line, as one consistent picture.

#include "dump_lines.hpp"

namespace dump_test {

namespace {

class a_listing : public world_test {
  protected:
    static std::string line(int index, const std::string& name, uint64_t first_page,
                            uint64_t page_count) {
        return chunk_line(index, name, "test", region().start + pages(first_page),
                          static_cast<int64_t>(pages(page_count)));
    }
};

TEST_P(a_listing, OfAFreshRegionIsEmpty) {
    EXPECT_EQ(user.call("dump_begin"), "true");
    EXPECT_EQ(user.call("dump_next 256"), "end");
    EXPECT_EQ(user.call("dump_next_device 256"), "end");
    EXPECT_EQ(outcome(user, "dump_end"), "0\n");
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(a_listing, HasTheChunksInAscendingAddressWithoutSentinelsAndGaps) {
    user.alloc("first", pages(1));
    user.alloc("second", pages(2));
    user.alloc("third", pages(1));
    user.alloc("fourth", pages(4));
    user.free("second");
    user.free("first");
    user.alloc("fifth", pages(1));
    EXPECT_EQ(user.dump(),
              (texts{line(2, "fifth", 0, 1), line(4, "third", 3, 1), line(5, "fourth", 4, 4)}));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(a_listing, ShowsTheChunksOfAllProcessesWithTheirCreators) {
    client other = machine.start();
    user.alloc("rx_ring", pages(1), "eth driver");
    other.alloc("tx_ring", pages(1), "switch agent");
    EXPECT_EQ(user.dump(),
              (texts{chunk_line(2, "rx_ring", "eth driver", region().start, 4096),
                     chunk_line(3, "tx_ring", "switch agent", region().start + pages(1), 4096)}));
}

TEST_P(a_listing, HasTheDevicesInOrderOfRegistrationWithTheirState) {
    for (const uint32_t bus : {3U, 1U, 2U}) {
        EXPECT_EQ(user.register_device(0, bus, 0), 0);
    }
    machine.writable_area().writer().u8(area_offset::device(1) + area_offset::online, 0);
    EXPECT_EQ(user.dump(),
              (texts{"0000:03:00.0: online", "0000:01:00.0: offline", "0000:02:00.0: online"}));
    EXPECT_EQ(user.unregister_device(0, 3, 0), 0);
    EXPECT_EQ(user.register_device(0, 3, 0), 0);
    EXPECT_EQ(user.dump(),
              (texts{"0000:01:00.0: offline", "0000:02:00.0: online", "0000:03:00.0: online"}));
}

TEST_P(a_listing, HoldsTheLockFromItsBeginningToItsEnd) {
    user.alloc("rx_ring", pages(1));
    user.call("calls");
    EXPECT_EQ(user.call("dump_begin"), "true");
    EXPECT_EQ(user.call("calls") + ' ', taken());
    EXPECT_FALSE(lock_is_free(machine.lock_file()));
    user.call("dump_next 256");
    user.call("dump_next 256");
    user.call("dump_next_device 256");
    EXPECT_EQ(user.call("calls"), "");
    EXPECT_FALSE(lock_is_free(machine.lock_file()));
    EXPECT_EQ(user.call("dump_end"), "0");
    EXPECT_EQ(' ' + user.call("calls"), released());
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

TEST_P(a_listing, MakesEveryOtherProcessWaitWithItsChanges) {
    user.alloc("rx_ring", pages(1));
    user.register_device(0, 3, 0);
    client others[] = {machine.start({"limits"}), machine.start({"limits"}),
                       machine.start({"limits"}), machine.start({"limits"})};
    const char* const commands[] = {"alloc tx_ring 4096 me", "free rx_ring", "register 0 4 0",
                                    "unregister 0 3 0"};
    EXPECT_EQ(user.call("dump_begin"), "true");
    const std::vector<uint8_t> before = machine.area().snapshot();
    for (size_t i = 0; i < std::size(others); i++) {
        others[i].send(commands[i]);
        others[i].wait_until_it_waits_for_a_lock();
    }
    EXPECT_EQ(user.call("dump_next 256"), reply_of(line(2, "rx_ring", 0, 1)));
    EXPECT_EQ(user.call("dump_next 256"), "end");
    EXPECT_EQ(user.call("dump_next_device 256"), reply_of("0000:03:00.0: online"));
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(user.call("dump_end"), "0");
    EXPECT_NE(others[0].reply(), "0x0");
    for (size_t i = 1; i < std::size(others); i++) {
        EXPECT_EQ(others[i].reply(), "0") << commands[i];
    }
    EXPECT_EQ(troubles(machine), texts{});
}

TEST_P(a_listing, KeepsTwoPlacesThatMoveOneWithoutTheOther) {
    user.alloc("first", pages(1));
    user.alloc("second", pages(1));
    user.register_device(0, 3, 0);
    user.register_device(0, 4, 0);
    user.call("dump_begin");
    EXPECT_EQ(user.call("dump_next_device 256"), reply_of("0000:03:00.0: online"));
    EXPECT_EQ(user.call("dump_next 256"), reply_of(line(2, "first", 0, 1)));
    EXPECT_EQ(user.call("dump_next_device 256"), reply_of("0000:04:00.0: online"));
    EXPECT_EQ(user.call("dump_next_device 256"), "end");
    EXPECT_EQ(user.call("dump_next 256"), reply_of(line(3, "second", 1, 1)));
    EXPECT_EQ(user.call("dump_next 256"), "end");
    // Over is over.
    EXPECT_EQ(user.call("dump_next 256"), "end");
    EXPECT_EQ(user.call("dump_next_device 256"), "end");
}

TEST_P(a_listing, BegunTwiceStartsAgainUnderTheSameLock) {
    user.alloc("rx_ring", pages(1));
    user.register_device(0, 3, 0);
    user.call("dump_begin");
    user.call("dump_next 256");
    user.call("dump_next_device 256");
    EXPECT_EQ(user.call("dump_begin"), "true");
    EXPECT_EQ(user.call("dump_next 256"), reply_of(line(2, "rx_ring", 0, 1)));
    EXPECT_EQ(user.call("dump_next_device 256"), reply_of("0000:03:00.0: online"));
    EXPECT_EQ(user.call("dump_end"), "0");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(, a_listing, testing::ValuesIn(all_worlds()), world_name());

class a_listing_after_refusals : public testing::TestWithParam<world> {};

TEST_P(a_listing_after_refusals, ShowsWhichDevicesAreGone) {
    sandbox machine(GetParam(), {"--rule", "op=map,device=0000:04:00.0,nth=1,errno=ENODEV",
                                 "--rule", "op=map,device=0000:05:00.0,errno=EIO"});
    client user = machine.start({"alloc rx_ring 4096 me"});
    EXPECT_EQ(user.register_device(0, 3, 0), 0);
    EXPECT_EQ(user.register_device(0, 4, 0), 0);
    EXPECT_EQ(user.register_device(0, 5, 0), -1);
    const std::string chunk = chunk_line(2, "rx_ring", "me", GetParam().start, 4096);
    EXPECT_EQ(user.dump(), (texts{chunk, "0000:03:00.0: online", "0000:04:00.0: offline",
                                  "0000:05:00.0: online"}));
    EXPECT_EQ(user.register_device(0, 4, 0), 0);
    EXPECT_EQ(user.dump(), (texts{chunk, "0000:03:00.0: online", "0000:04:00.0: online",
                                  "0000:05:00.0: online"}));
}

INSTANTIATE_TEST_SUITE_P(, a_listing_after_refusals, testing::ValuesIn(hardware_worlds()),
                         world_name());

// ---- Without a listing, and failures ----

TEST(a_listing_that_was_never_begun, HasNoLinesAndDoesNotStartTheLibrary) {
    sandbox machine(low, {"--without", "proc"});
    client user = machine.start();
    EXPECT_EQ(user.call("dump_next 256"), "end");
    EXPECT_EQ(user.call("dump_next_device 256"), "end");
    EXPECT_EQ(user.call("calls"), "");
    EXPECT_EQ(user.error_text(), "");
}

TEST(a_listing_that_was_never_begun, StillReleasesTheLockAtItsEndKeptOnPurpose) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 4096 me"});
    user.call("calls");
    EXPECT_EQ(outcome(user, "dump_end"), "0\n");
    EXPECT_EQ(user.call("calls"), "flock(5,LOCK_UN)=0");
    client unstarted = machine.start();
    EXPECT_EQ(fatal_outcome(unstarted, "dump_end"), aborted(release_failed));
}

TEST(a_listing_that_cannot_begin, SaysThatThereIsNoRegion) {
    sandbox machine(low, {"--rule", "op=open-read,nth=1,errno=ENOENT"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, "dump_begin"), "false\n" + no_region_at_all());
    EXPECT_EQ(user.call("dump_next 256"), "end");
    EXPECT_EQ(user.call("dump_begin"), "true");
}

TEST(a_listing_that_cannot_begin, SaysThatTheLockFailedAndHasNoLines) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 4096 me", "register 0 3 0", "fail flock EINTR"});
    EXPECT_EQ(outcome(user, "dump_begin"),
              "false\ntarvo: failed to accquire lock: Interrupted system call\n");
    EXPECT_EQ(user.call("dump_next 256"), "end");
    EXPECT_EQ(user.call("dump_next_device 256"), "end");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

TEST(a_listing_that_cannot_begin_again, GoesOnWhereItWasKeptOnPurpose) {
    sandbox machine(simulation);
    client user = machine.start({"alloc first 4096 me", "alloc second 4096 me", "dump_begin"});
    user.call("dump_next 256");
    user.call("fail flock EINTR");
    EXPECT_EQ(user.call("dump_begin"), "false");
    EXPECT_EQ(user.call("dump_next 256"), reply_of(chunk_line(3, "second", "me", 0x2000, 4096)));
}

TEST(a_listing_in_progress, LosesItsLockToAnyOtherCallOfTheProcessKeptOnPurpose) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 4096 me", "dump_begin"});
    user.find(0x1000);
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    EXPECT_EQ(user.call("dump_next 256"), reply_of(chunk_line(2, "rx_ring", "me", 0x1000, 4096)));
    EXPECT_EQ(user.call("dump_end"), "0");
}

TEST(a_listing_in_progress, IsNotTraced) {
    sandbox machine(simulation);
    client user =
        machine.start({"setenv ZUL_TRACE tarvo=6", "alloc rx_ring 4096 me", "register 0 3 0"});
    user.new_text();
    EXPECT_EQ(user.dump().size(), 2U);
    EXPECT_EQ(user.new_text(), "");
}

} // namespace

} // namespace dump_test
