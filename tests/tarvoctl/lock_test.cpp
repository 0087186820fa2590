#include "tool.hpp"

#include <csignal>
#include <gtest/gtest.h>

namespace lock_test {

namespace {

/// "holds 4711", "waits 4712", ... in the order given, of the lock at that position.
std::vector<std::string> parties_of(const nlohmann::json& document, size_t lock = 0) {
    std::vector<std::string> parties;
    for (const auto& each : document.at("locks").at(lock).at("processes")) {
        parties.push_back(each.at("role").get<std::string>() + " " +
                          std::to_string(each.at("pid").get<pid_t>()));
    }
    return parties;
}

std::string party(const std::string& role, pid_t pid) {
    return role + " " + std::to_string(pid);
}

TEST(lock, OfNobodyIsFree) {
    sandbox machine(simulation);
    machine.start().alloc("rx_ring", pages(1));
    const auto outcome = tarvoctl(machine, {"lock"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "/var/tmp/tarvo_lock: free\n"
                              "/var/lock/subsys/tarvo_lock: free, because the file is missing\n");
}

TEST(lock, FilesAreNotMadeByLooking) {
    sandbox machine(low);
    const auto outcome = tarvoctl(machine, {"lock"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "/var/lock/subsys/tarvo_lock: free, because the file is missing\n");
    EXPECT_FALSE(exists(machine.lock_file()));
}

class lock_in_world : public testing::TestWithParam<world> {};

TEST_P(lock_in_world, ShowsTheHolderAndThoseWhoWaitInTheirOrder) {
    sandbox machine(GetParam());
    client holder = machine.start();
    client first = machine.start();
    client second = machine.start();
    for (client* each : {&holder, &first, &second}) {
        each->limits(); // starts the library in it
    }
    holder.call("dump_begin");
    first.send("alloc a 1 me");
    first.wait_until_it_waits_for_a_lock();
    second.send("alloc b 1 me");
    second.wait_until_it_waits_for_a_lock();

    const auto outcome = tarvoctl(machine, {"lock"});
    EXPECT_EQ(outcome.status, 1);
    const std::string heading = std::string(GetParam().lock_path()) + ": held by " +
                                std::to_string(holder.pid()) + " (tarvo-client), 2 wait\n";
    EXPECT_TRUE(starts_with(outcome.output, heading));
    EXPECT_TRUE(contains(outcome.output, "The kernel does not record since when"));
    const auto document = json_of(tarvoctl(machine, {"lock", "--json"}));
    EXPECT_EQ(parties_of(document),
              (std::vector<std::string>{party("holds", holder.pid()), party("waits", first.pid()),
                                        party("waits", second.pid())}));
    EXPECT_EQ(document.at("locks").at(0).at("troubles"), nlohmann::json::array());
    holder.call("dump_end");
    EXPECT_NE(first.reply(), "0x0");
    EXPECT_NE(second.reply(), "0x0");
}

INSTANTIATE_TEST_SUITE_P(SomeWorlds, lock_in_world, testing::Values(simulation, low, cma),
                         world_name());

TEST(lock, OfAStoppedProcessIsATroubleWithItsFix) {
    sandbox machine(simulation);
    client holder = machine.start({"dump_begin"});
    ASSERT_EQ(::kill(holder.pid(), SIGSTOP), 0);
    tool_outcome outcome;
    EXPECT_TRUE(eventually([&] { // the signal takes a moment
        outcome = tarvoctl(machine, {"lock"});
        return contains(outcome.output, "STOPPED");
    }));
    const std::string pid = std::to_string(holder.pid());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(
        outcome.output,
        "  ! " + pid +
            " (tarvo-client) is stopped: nobody gets the lock before it goes on (kill -CONT " +
            pid + ") or ends (kill -KILL " + pid + ")\n"));
    ::kill(holder.pid(), SIGCONT);
}

TEST(lock, IsNotTakenByLooking) {
    sandbox machine(simulation);
    client user = machine.start({"alloc a 1 me"});
    const held_lock held(machine.lock_file());
    user.send("alloc b 1 me");
    user.wait_until_it_waits_for_a_lock();
    // It would have to wait after the two.
    EXPECT_EQ(tarvoctl(machine, {"lock"}).status, 1);
    EXPECT_EQ(parties_of(json_of(tarvoctl(machine, {"lock", "--json"}))),
              (std::vector<std::string>{party("holds", ::getpid()), party("waits", user.pid())}));
}

/// Whatever it is called with ends with it, also when a test fails.
class to_be_killed {
  public:
    explicit to_be_killed(pid_t pid) : _pid(pid) {}
    ~to_be_killed() { ::kill(_pid, SIGKILL); }
    to_be_killed(const to_be_killed&) = delete;
    to_be_killed& operator=(const to_be_killed&) = delete;

  private:
    pid_t _pid;
};

TEST(lock, OfAnOwnerThatEndedNamesTheChildThatKeepsIt) {
    sandbox machine(simulation);
    machine.start().alloc("rx_ring", pages(1));
    process owner = machine.start_process(
        {"sh", "-c", "exec 9</var/tmp/tarvo_lock; flock 9; sleep 1000 >/dev/null & echo $!"});
    const auto line = owner.read_line();
    ASSERT_TRUE(line.has_value());
    const pid_t child = std::stoi(*line);
    const to_be_killed killed(child);
    owner.wait();

    const auto outcome = tarvoctl(machine, {"lock"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(starts_with(outcome.output, "/var/tmp/tarvo_lock: held by " + *line + " (sleep)"));
    EXPECT_TRUE(contains(outcome.output, "took the lock and ended without giving it back; " +
                                             *line +
                                             " (sleep) has inherited its open lock file by fork, "
                                             "and nobody gets the lock before that ends (kill " +
                                             *line + ")\n"));
    EXPECT_EQ(parties_of(json_of(tarvoctl(machine, {"lock", "--json"}))),
              (std::vector<std::string>{party("keeps", child)}));
}

TEST(lock, FilesOfSimulationAreBothLookedAt) {
    sandbox machine(simulation);
    client with = machine.start({"alloc a 1 me"});
    client without = machine.start({"unsetenv SIMULATION_VMID", "dump_begin"});
    const auto document = json_of(tarvoctl(machine, {"lock", "--json"}));
    EXPECT_EQ(document.at("locks").at(0).at("file"), "/var/tmp/tarvo_lock");
    EXPECT_EQ(document.at("locks").at(0).at("held"), false);
    EXPECT_EQ(document.at("locks").at(1).at("file"), "/var/lock/subsys/tarvo_lock");
    EXPECT_EQ(parties_of(document, 1), (std::vector<std::string>{party("holds", without.pid())}));
}

TEST(lock, FileThatWasRemovedUnderAProcessIsATrouble) {
    sandbox machine(simulation);
    client user = machine.start({"alloc a 1 me"});
    std::filesystem::remove(machine.lock_file());
    const auto outcome = tarvoctl(machine, {"lock"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(contains(outcome.output, "  ! " + std::to_string(user.pid()) +
                                             " (tarvo-client) uses a lock file that was removed"));
}

} // namespace

} // namespace lock_test
