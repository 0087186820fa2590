// A program that forks: it, its children and theirs are processes like any others to the lock.

#include "observed.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace fork_test {

namespace {

/// A program of a sandbox and the children that it forks, which stay until this object goes.
class family {
  public:
    explicit family(const world& chosen) : machine(chosen), parent(machine.start()) {}

    sandbox machine;
    client parent;

    /// Has a new child carry out the command; as many generations as there are in "fork COMMAND".
    /// Returns one of the children.
    pid_t fork(const std::string& command, size_t generations = 1) {
        const size_t all = _children.size() + generations;
        parent.send("fork " + command);
        while (_children.size() < all) {
            take_reply();
        }
        return _children.back();
    }

    void kill_children() const {
        for (const pid_t child : _children) {
            ::kill(child, SIGKILL);
        }
    }

    /// What the next of them that is done replied, the parent among them.
    std::string reply() {
        while (_replies.empty()) {
            take_reply();
        }
        const std::string reply = _replies.front();
        _replies.erase(_replies.begin());
        return reply;
    }

  private:
    /// "forked PID", or another reply.
    void take_reply() {
        const std::string reply = parent.reply();
        constexpr std::string_view forked = "forked ";
        if (reply.starts_with(forked)) {
            _children.push_back(std::stoi(reply.substr(forked.size())));
        } else {
            _replies.push_back(reply);
        }
    }

    std::vector<pid_t> _children;
    texts _replies;
};

class fork_of_a_started_program : public testing::TestWithParam<world> {};

void expect_exclusion(const world& chosen, int siblings, int rounds) {
    family all(chosen);
    all.parent.alloc("kept", 4096);
    for (int i = 0; i < siblings; ++i) {
        all.fork("churn child" + std::to_string(i) + " " + std::to_string(rounds));
    }
    all.parent.send("churn parent " + std::to_string(rounds));
    for (int i = 0; i <= siblings; ++i) {
        EXPECT_EQ(all.reply(), "done");
    }
    EXPECT_EQ(layout(all.machine), "kept:0+1");
    EXPECT_EQ(troubles(all.machine), texts{});
    EXPECT_EQ(all.parent.error_text(), "");
}

TEST_P(fork_of_a_started_program, LetsTwoSiblingsAndTheirParentExcludeEachOther) {
    expect_exclusion(GetParam(), 2, 8500);
}

TEST_P(fork_of_a_started_program, LetsEightSiblingsAndTheirParentExcludeEachOther) {
    expect_exclusion(GetParam(), 8, 2800);
}

TEST_P(fork_of_a_started_program, HoldsItsChildrenOffWhileItLists) {
    family all(GetParam());
    EXPECT_EQ(all.parent.call("dump_begin"), "true");
    const pid_t child = all.fork("alloc rx_ring 4096 child");
    all.parent.wait_until_it_waits_for_a_lock(child);
    EXPECT_EQ(layout(all.machine), "");
    all.parent.send("dump_end");
    texts replies{all.reply(), all.reply()};
    std::sort(replies.begin(), replies.end());
    EXPECT_EQ(replies.front(), "0");
    EXPECT_EQ(layout(all.machine), "rx_ring:0+1");
}

/// Lets the program open no file more than it has.
void spare_no_descriptor(pid_t pid) {
    const std::filesystem::path open_files = "/proc/" + std::to_string(pid) + "/fd";
    rlim_t lowest_free = 0;
    while (is_symlink(open_files / std::to_string(lowest_free))) {
        ++lowest_free;
    }
    const rlimit limit{lowest_free, lowest_free};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &limit, nullptr), 0);
}

TEST_P(fork_of_a_started_program, HoldsItsChildrenOffWithoutADescriptorToSpare) {
    family all(GetParam());
    EXPECT_EQ(all.parent.call("dump_begin"), "true");
    spare_no_descriptor(all.parent.pid());
    const pid_t child = all.fork("alloc rx_ring 4096 child");
    all.parent.wait_until_it_waits_for_a_lock(child);
    EXPECT_EQ(layout(all.machine), "");
}

TEST_P(fork_of_a_started_program, KeepsItsListingToItself) {
    family all(GetParam());
    all.parent.alloc("rx_ring", 4096);
    all.parent.register_device(0, 3, 0);
    all.parent.call("dump_begin");
    for (const auto& [command, reply] :
         {std::pair{"dump_next 256", "end"}, {"dump_next_device 256", "end"}, {"dump_end", "0"}}) {
        all.fork(command);
        EXPECT_EQ(all.reply(), reply) << command;
        EXPECT_FALSE(lock_is_free(all.machine.lock_file())) << command;
    }
    EXPECT_NE(all.parent.call("dump_next 256"), "end");
    EXPECT_EQ(all.parent.call("dump_next_device 256"), "\"0000:03:00.0: online\"");
    EXPECT_EQ(all.parent.call("dump_end"), "0");
    EXPECT_TRUE(lock_is_free(all.machine.lock_file()));
}

TEST_P(fork_of_a_started_program, LeavesNothingOfItsLockToItsChildrenWhenItIsKilled) {
    family all(GetParam());
    all.parent.limits();
    const pid_t before = all.fork("pid");
    all.reply();
    all.parent.call("dump_begin");
    const pid_t meanwhile = all.fork("pid");
    all.reply();
    EXPECT_FALSE(lock_is_free(all.machine.lock_file()));
    all.parent.kill(SIGKILL);
    EXPECT_TRUE(lock_is_free(all.machine.lock_file()));
    EXPECT_EQ(::kill(before, 0), 0);
    EXPECT_EQ(::kill(meanwhile, 0), 0);
}

TEST_P(fork_of_a_started_program, HasGrandchildrenThatAreOnTheirOwnToo) {
    family all(GetParam());
    all.parent.limits();
    all.fork("fork dump_begin", 2);
    EXPECT_EQ(all.reply(), "true");
    all.parent.send("alloc rx_ring 4096 parent");
    all.parent.wait_until_it_waits_for_a_lock();
    EXPECT_EQ(layout(all.machine), "");
    all.kill_children();
    EXPECT_NE(all.reply(), "0x0");
    EXPECT_EQ(layout(all.machine), "rx_ring:0+1");
}

TEST_P(fork_of_a_started_program, GivesItsChildrenTheSameDescriptors) {
    sandbox machine(GetParam());
    client user = machine.start({"close 0"});
    user.limits();
    const std::string descriptors = user.call("fds");
    EXPECT_EQ(user.call("in_child fds"), descriptors);
    EXPECT_EQ(user.reply(), "child ended");
    EXPECT_EQ(user.call("fds"), descriptors);
}

INSTANTIATE_TEST_SUITE_P(, fork_of_a_started_program, testing::Values(simulation, high),
                         world_name());

TEST(a_fork_before_the_first_call, LeavesBothToStartOnTheirOwn) {
    family all(low);
    all.fork("dump_begin");
    EXPECT_EQ(all.reply(), "true");
    all.parent.send("alloc rx_ring 4096 parent");
    all.parent.wait_until_it_waits_for_a_lock();
    all.kill_children();
    EXPECT_NE(all.reply(), "0x0");
}

// ---- How the lock is opened again ----

class childs_lock : public testing::Test {
  protected:
    /// The calls that the C library's fork makes for the library.
    std::string calls_of_a_fork() {
        user.call("calls");
        const std::string calls = user.call("in_child calls");
        user.reply();
        return calls;
    }

    /// Whether a child is held off by a listing of its parent.
    bool is_its_own() {
        user.call("dump_begin");
        user.call("in_child dump_end");
        user.reply();
        const bool still_held = !lock_is_free(machine.lock_file());
        user.call("dump_end");
        return still_held;
    }

    sandbox machine{simulation};
    client user = machine.start();
};

constexpr const char* opened_by_descriptor =
    "open(/proc/self/fd/5,O_RDONLY|O_CLOEXEC|O_NONBLOCK|O_NOCTTY)";
constexpr const char* opened_by_path =
    "open(/var/tmp/tarvo_lock,O_RDONLY|O_CLOEXEC|O_NONBLOCK|O_NOCTTY)";

TEST_F(childs_lock, IsOpenedByItsDescriptor) {
    user.limits();
    EXPECT_EQ(calls_of_a_fork(), std::string(opened_by_descriptor) + "=6 close(6)=0");
    EXPECT_TRUE(is_its_own());
}

TEST_F(childs_lock, IsOpenedByItsDescriptorWhereItsPathIsGone) {
    user.limits();
    std::filesystem::remove(machine.lock_file());
    EXPECT_EQ(calls_of_a_fork(), std::string(opened_by_descriptor) + "=6 close(6)=0");
}

TEST_F(childs_lock, IsOpenedByItsPathWhereProcIsNotThere) {
    user.limits();
    user.call("fail open ENOENT 1");
    EXPECT_EQ(calls_of_a_fork(),
              std::string(opened_by_descriptor) + "=-1 " + opened_by_path + "=6 close(6)=0");
    EXPECT_TRUE(is_its_own());
}

TEST_F(childs_lock, IsNotAnotherFileOfThatPath) {
    user.limits();
    std::filesystem::remove(machine.lock_file());
    client other = machine.start();
    other.limits();
    user.call("fail open ENOENT 1");
    const std::string descriptors = user.call("fds");
    EXPECT_EQ(user.call("in_child fds"), descriptors);
    EXPECT_NE(descriptors.find("5:/var/tmp/tarvo_lock (deleted):r:cloexec"), std::string::npos)
        << descriptors;
}

TEST_F(childs_lock, IsTheParentsWhereItCannotBeOpened) {
    user.limits();
    user.call("fail open EACCES 0");
    EXPECT_FALSE(is_its_own());
    EXPECT_EQ(user.error_text(), "");
}

TEST_F(childs_lock, NeverComesFromAFileThatTheProgramOpenedInItsPlace) {
    user.limits();
    user.call("close 5");
    EXPECT_EQ(calls_of_a_fork(), "");
    EXPECT_EQ(user.call("open /proc/self/status"), "5");
    EXPECT_EQ(calls_of_a_fork(), "");
}

} // namespace

} // namespace fork_test
