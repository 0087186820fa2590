#include "terminal.hpp"
#include "tool.hpp"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>

namespace no_lock_test {

namespace {

using words = std::vector<std::string>;

/// Each command that looks; @before is a snapshot, @new a file that does not exist yet.
const std::vector<words> looking_commands{{"list"},
                                          {"show", "rx_ring"},
                                          {"devices"},
                                          {"who"},
                                          {"leaks"},
                                          {"map"},
                                          {"diff", "@before"},
                                          {"find", "0x80000000"},
                                          {"top"},
                                          {"translate", "0x80000000"},
                                          {"limits"},
                                          {"check"},
                                          {"snapshot", "@new"}};

constexpr const char* half_changed = "tarvoctl: the area changed during every reading without its "
                                     "lock: what is printed may be half changed\n";

class no_lock : public ::testing::Test {
  protected:
    no_lock() {
        driver.alloc("rx_ring", 0x10000, "driver");
        driver.register_device(0, 3, 0);
        EXPECT_EQ(tarvoctl(machine, {"snapshot", before}).status, 0);
    }

    words filled_in(const words& command) const {
        words made = command;
        for (std::string& word : made) {
            word = word == "@before" ? before : word == "@new" ? unused : word;
        }
        return made;
    }

    sandbox machine{low};
    client driver = machine.start();
    temporary_folder folder;
    std::string before = folder.path() / "before";
    std::string unused = folder.path() / "new";
};

TEST_F(no_lock, CommandsThatLookNameTheHolderAndTheWayOut) {
    const held_lock held(machine.lock_file());
    for (const words& command : looking_commands) {
        EXPECT_EQ(tarvoctl(machine, filled_in(command) + words{"--timeout", "0"}),
                  failed(5, "the lock /var/lock/subsys/tarvo_lock was not free within 0 s: " +
                                this_process() +
                                " holds it; 'tarvoctl lock' shows more, --timeout waits longer, "
                                "--no-lock reads without it"))
            << command.front();
    }
}

TEST_F(no_lock, CommandsThatLookSayTheSameWhileSomebodySitsOnTheLock) {
    for (const words& command : looking_commands) {
        const words plain = filled_in(command);
        const auto expected = tarvoctl(machine, plain);
        std::filesystem::remove(unused);
        const held_lock held(machine.lock_file());
        const auto outcome = tarvoctl(machine, plain + words{"--no-lock"});
        EXPECT_EQ(outcome.status, expected.status) << command.front();
        EXPECT_EQ(outcome.errors, expected.errors) << command.front();
        if (command.front() != "top") { // which begins with the time
            EXPECT_EQ(outcome.output, expected.output) << command.front();
        }
        std::filesystem::remove(unused);
    }
}

TEST_F(no_lock, ReadsNoFileOfALockThatItDoesNotTake) {
    std::filesystem::remove(machine.lock_file());
    EXPECT_EQ(tarvoctl(machine, {"list", "--no-lock"}).status, 0);
    EXPECT_FALSE(exists(machine.lock_file()));
}

/// Changes a byte of a chunk's creator without end, and without the lock.
class restless_writer {
  public:
    explicit restless_writer(sandbox& machine)
        : _area(machine.writable_area()), _thread([this] { write(); }) {}
    ~restless_writer() {
        _ends = true;
        _thread.join();
    }
    restless_writer(const restless_writer&) = delete;
    restless_writer& operator=(const restless_writer&) = delete;

  private:
    void write() {
        for (uint8_t letter = 0; !_ends; ++letter) {
            _area.writer().u8(area_offset::chunk(2) + area_offset::creator, letter | 1U);
        }
    }

    area_file _area;
    std::atomic<bool> _ends = false;
    std::thread _thread;
};

/// The outcome of a reading that others changed each time, which takes a moment to come about where
/// the writer seldom gets a processor.
tool_outcome disturbed(sandbox& machine, const words& command) {
    tool_outcome outcome;
    for (int attempt = 0; attempt < 20 && outcome.errors.empty(); ++attempt) {
        outcome = tarvoctl(machine, command);
    }
    return outcome;
}

TEST_F(no_lock, WhatChangesAllTheTimeIsReportedWithARemark) {
    const restless_writer writer(machine);
    const auto text = disturbed(machine, {"list", "--no-lock", "-o", "name", "--no-header"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.output, "rx_ring\n");
    EXPECT_EQ(text.errors, half_changed);
    for (const char* command : {"list", "check", "who"}) {
        const auto outcome = disturbed(machine, {command, "--no-lock", "--json"});
        EXPECT_EQ(own_errors(outcome), half_changed) << command;
        EXPECT_EQ(json_of(outcome).at("consistent"), false) << command;
    }
}

TEST_F(no_lock, WhatIsReadUnderTheLockIsConsistent) {
    const restless_writer writer(machine);
    const auto outcome = tarvoctl(machine, {"list", "--json"});
    EXPECT_EQ(json_of(outcome).at("consistent"), true);
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(no_lock, WatchTellsChangesWhileSomebodySitsOnTheLock) {
    running_tool watch = start_tarvoctl(machine, {"watch", "--no-lock", "--interval", "0.02"});
    EXPECT_TRUE(contains(watch.program.read_line().value(), "area found"));
    driver.alloc("fresh", 0x1000, "driver");
    driver.call("dump_begin"); // holds the lock
    EXPECT_TRUE(contains(watch.program.read_line().value(), "allocated     fresh"));
    EXPECT_TRUE(watch.end_by(SIGTERM) == normal_end);
}

TEST_F(no_lock, TopShowsThePageWhileSomebodySitsOnTheLock) {
    driver.call("dump_begin"); // holds the lock
    terminal screen(24, 100);
    running_tool top = screen.start(machine, {"top", "--no-lock", "--interval", "0.05"});
    screen.output_with("rx_ring");
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

} // namespace

} // namespace no_lock_test
