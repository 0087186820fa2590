#include "observed.hpp"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>

namespace lock_test {

namespace {

class the_lock : public testing::TestWithParam<world> {};

TEST_P(the_lock, HoldsOffTheBuildOfTheArea) {
    sandbox machine(GetParam());
    std::ofstream(machine.lock_file()).flush();
    client user = machine.start();
    {
        const held_lock lock(machine.lock_file());
        user.send("limits");
        user.wait_until_it_waits_for_a_lock();
        EXPECT_EQ(machine.area().view().initialized(), 0);
    }
    EXPECT_EQ(user.reply().substr(0, 2), "0 ");
    EXPECT_EQ(area_breaches(machine.area().view()), std::vector<std::string>{});
}

TEST_P(the_lock, GoesWithAProcessThatIsKilled) {
    sandbox machine(GetParam());
    client holder = machine.start();
    client other = machine.start();
    EXPECT_EQ(holder.alloc("tx_ring", 4096), GetParam().start_dma);
    EXPECT_EQ(other.free("nothing"), -1);
    EXPECT_EQ(holder.call("dump_begin"), "true");
    EXPECT_FALSE(lock_is_free(machine.lock_file()));
    other.send("free tx_ring");
    other.wait_until_it_waits_for_a_lock();
    EXPECT_EQ(holder.kill(SIGKILL), ended_by(SIGKILL));
    EXPECT_EQ(other.reply(), "0");
    EXPECT_EQ(other.error_text(), "");
    EXPECT_EQ(area_breaches(machine.area().view()), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(, the_lock, testing::Values(simulation, low, cma), world_name());

TEST(the_lock_of_a_simulated_region, IsAnotherOneWithoutTheVariable) {
    sandbox machine(simulation);
    client with = machine.start();
    client without = machine.start({"unsetenv SIMULATION_VMID"});
    EXPECT_EQ(with.alloc("rx_ring", 4096), 0x1000U);
    EXPECT_EQ(with.call("dump_begin"), "true");
    // It shares the region and yet does not wait.
    EXPECT_EQ(without.find(0x1000), (found_chunk{"rx_ring", 0x1000}));
    EXPECT_EQ(mode_of(machine.hardware_lock()), "0666");
    EXPECT_EQ(with.call("dump_end"), "0");
}

struct refused_operation {
    const char* command;
    const char* failure;
};

TEST(a_lock_that_cannot_be_taken, MakesTheOperationFailAndChangesNothing) {
    const std::vector<refused_operation> operations{
        {"alloc tx_ring 4096 me", "0x0"},   {"free rx_ring", "-1"},
        {"map rx_ring 1 0 0", "null"},      {"unmap rx_ring 0x1000 0", "-1"},
        {"find 0x1000", "null 0xdeadbeef"}, {"dump_begin", "false"},
        {"register 0 3 0", "-1"},           {"unregister 0 3 0", "-1"},
    };
    sandbox machine(simulation);
    client user = machine.start();
    user.alloc("rx_ring", 4096);
    const std::vector<uint8_t> before = machine.area().snapshot();
    user.call("fail flock EINTR 0");
    std::string said;
    for (const refused_operation& one : operations) {
        user.call("calls");
        EXPECT_EQ(user.call(one.command), one.failure) << one.command;
        EXPECT_EQ(user.call("calls"), "flock(5,LOCK_EX)=-1") << one.command;
        said += "tarvo: failed to accquire lock: Interrupted system call\n";
        EXPECT_EQ(user.error_text(), said) << one.command;
    }
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    user.call("fail_nothing");
    EXPECT_EQ(user.free("rx_ring"), 0);
}

TEST(a_lock_that_cannot_be_released, EndsTheProcessAndIsFreeAgain) {
    sandbox machine(low);
    client user = machine.start();
    user.alloc("rx_ring", 4096);
    user.call("fail flock EBADF 2");
    EXPECT_EQ(user.dies("free rx_ring"), ended_by(SIGABRT));
    EXPECT_EQ(user.error_text(), "tarvo: failed to release lock: Bad file descriptor\n");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    // What the process had changed stays.
    EXPECT_EQ(machine.area().view().chunks().size(), 2U);
}

TEST(a_lock_that_cannot_be_released, EndsTheProcessBeforeASharedChunkIsTraced) {
    sandbox machine(low);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "alloc rx_ring 4096 me"});
    user.call("fail flock EBADF 2");
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 4096 me"),
              aborted(traced(5, "tarvo_alloc_func",
                             "tarvo_alloc_func: name rx_ring size 4096 creator me") +
                      release_failed));
}

} // namespace

} // namespace lock_test
