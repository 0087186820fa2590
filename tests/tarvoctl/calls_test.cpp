#include "lock_table.hpp"
#include "terminal.hpp"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <sstream>

namespace calls_test {

namespace {

std::string first_column(const tool_outcome& outcome) {
    return outcome.output.substr(0, outcome.output.find(','));
}

TEST(alloc, MakesAChunkOnceAndSharesItThen) {
    sandbox machine(high);
    EXPECT_EQ(tarvoctl(machine, {"alloc", "rx_ring", "64K", "--creator", "shell"}),
              printed("rx_ring: new, 64 KiB at DMA 0x20000000, physical 0x0200000000\n"));
    EXPECT_EQ(
        tarvoctl(machine, {"alloc", "rx_ring", "65535"}),
        printed(
            "rx_ring: shared, it was there, 64 KiB at DMA 0x20000000, physical 0x0200000000\n"));
    const auto chunks = machine.area().view().chunks();
    ASSERT_EQ(chunks.size(), 3);
    EXPECT_EQ(chunks[1].creator, "shell");
}

TEST(alloc, IsItsOwnCreatorAndTellsThePlaceAsJson) {
    sandbox machine(low);
    const auto document = json_of(tarvoctl(machine, {"alloc", "a", "1", "--json"}));
    EXPECT_EQ(document.at("shared"), false);
    EXPECT_EQ(document.at("chunk").at("size"), 4096);
    EXPECT_EQ(document.at("chunk").at("pa").at("number"), 0x80000000);
    EXPECT_EQ(document.at("chunk").at("creator"), "tarvoctl");
    EXPECT_EQ(json_of(tarvoctl(machine, {"alloc", "a", "1", "--json"})).at("shared"), true);
}

TEST(alloc, AnotherSizeOfANameNeedsToBeAskedFor) {
    sandbox machine(low);
    const client driver = machine.start({"alloc stats 1 test"});
    EXPECT_EQ(tarvoctl(machine, {"alloc", "stats", "8K"}),
              failed(2, "there is a chunk 'stats' of 4 KiB (4096 bytes), not 8 KiB (8192 bytes); "
                        "ask for that size, or for a second chunk of the name with --duplicate"));
    EXPECT_EQ(machine.area().view().chunks().size(), 3);
    const auto made = tarvoctl(machine, {"alloc", "stats", "8K", "--duplicate"});
    EXPECT_EQ(made.status, 0);
    EXPECT_EQ(made.output, "stats: new, 8 KiB at DMA 0x80001000, physical 0x0080001000\n");
    EXPECT_EQ(made.errors, "tarvo: find_chunk_desc() size mismatch, see tarvo\n\n");
}

TEST(alloc, WhatWouldEndTheLibrarysProcessIsRefusedBeforeTheCall) {
    sandbox machine(low);
    const auto message = [&](const arguments& words) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 2) << outcome.errors;
        return outcome.errors;
    };
    const std::string long_name(50, 'n');
    EXPECT_EQ(message({"alloc", long_name, "1"}),
              "tarvoctl: the name '" + long_name + "' has 50 bytes; a chunk's name has 1 to 49\n");
    EXPECT_EQ(message({"alloc", "", "1"}), "tarvoctl: NAME is empty; give a value\n");
    EXPECT_EQ(
        message({"alloc", "__TAIL", "1"}),
        "tarvoctl: '__TAIL' is reserved: it marks an end of the region; choose another name\n");
    EXPECT_EQ(
        message({"free", "__TAIL", "--force"}),
        "tarvoctl: '__TAIL' is reserved: it marks an end of the region; choose another name\n");
    EXPECT_EQ(
        message({"alloc", "a ", "1"}),
        "tarvoctl: the name 'a ' ends in a blank, which a listing cannot show; leave it out\n");
    EXPECT_EQ(message({"alloc", "a", "0"}),
              "tarvoctl: SIZE '0' is 0 bytes; a chunk has 1 to 2147483648 bytes\n");
    EXPECT_EQ(
        message({"alloc", "a", "0x80000001"}),
        "tarvoctl: SIZE '0x80000001' is 2147483649 bytes; a chunk has 1 to 2147483648 bytes\n");
    EXPECT_EQ(message({"alloc", "a", "1", "--creator", ""}),
              "tarvoctl: --creator is empty; give a value, or leave it out\n");
    const std::string long_creator(100, 'c');
    EXPECT_EQ(message({"alloc", "a", "1", "--creator", long_creator}),
              "tarvoctl: --creator '" + long_creator +
                  "' has 100 bytes; a creator has at most 99; shorten it\n");
    EXPECT_FALSE(exists(machine.shared_area())) << "nothing of this starts the region";
}

TEST(alloc, TellsHowMuchRoomThereIsWhenThereIsTooLittle) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 test"});
    EXPECT_EQ(tarvoctl(machine, {"alloc", "big", "256M"}),
              failed(1, "no room for 'big': it takes 262144 KiB, the largest gap has 262140 KiB, "
                        "all gaps together 262140 KiB; see 'tarvoctl map'"));
}

TEST(alloc, TellsThatTheKernelGaveNothing) {
    sandbox machine(cma, {"--rule", "op=allocate,errno=ENOMEM"});
    machine.start().limits();
    const auto outcome = tarvoctl(machine, {"alloc", "a", "4K"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.errors, "tarvoctl: the kernel driver gave no place for 4 KiB\n"));
}

TEST(alloc, TheLibrarysLastWordIsAFailureAndNotTheEndOfTheTool) {
    sandbox machine(low);
    const client driver = machine.start({"register 0 3 0"});
    machine.add_rules({"op=map,errno=EIO"});
    const auto outcome = tarvoctl(machine, {"alloc", "a", "4K"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(contains(outcome.errors, "Error IOMMU mapping chunk Input/output error\n"));
    EXPECT_TRUE(ends_with(outcome.errors,
                          "tarvoctl: the library ended the call with SIGABRT; its reason "
                          "is above. 'tarvoctl check' shows whether the area is intact\n"));
}

TEST(alloc, WithoutARegionItSaysWhatIsMissing) {
    sandbox machine(low, {"--without", "proc"});
    EXPECT_EQ(tarvoctl(machine, {"alloc", "a", "4K"}),
              failed(3, "there is no region: /proc/tarvo is missing or does not describe one, and "
                        "SIMULATION_VMID is not set and /var/tmp/tarvo does not exist. Load the "
                        "kernel driver, or run with SIMULATION_VMID set"));
    EXPECT_FALSE(exists(machine.shared_area()));
}

TEST(free, NamesWhoHasTheChunkAndRefusesWithoutATerminal) {
    sandbox machine(low);
    client driver = machine.start({"alloc rx_ring 1 test", "register 0 3 0", "map rx_ring 1 0 0"});
    const std::string holder = std::to_string(driver.pid()) + " (tarvo-client)";
    const std::string effects =
        "tarvoctl: 'rx_ring' is mapped by " + holder +
        ", which would go on seeing memory that may become another chunk's\n"
        "tarvoctl: 'rx_ring' is mapped for 0000:03:00.0, which would lose it\n";
    const auto refused = tarvoctl(machine, {"free", "rx_ring"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(own_errors(refused),
              effects + "tarvoctl: nothing was changed; --force does it without asking\n");
    EXPECT_EQ(machine.area().view().chunks().size(), 3);
    const auto forced = tarvoctl(machine, {"free", "rx_ring", "--force"});
    EXPECT_EQ(forced.status, 0);
    EXPECT_EQ(forced.output, "rx_ring: freed, 4 KiB at DMA 0x80000000, physical 0x0080000000\n");
    EXPECT_EQ(own_errors(forced), effects);
    EXPECT_EQ(machine.area().view().chunks().size(), 2);
}

TEST(free, TellsWhoHadItAsJson) {
    sandbox machine(simulation);
    client driver = machine.start();
    client other = machine.start();
    driver.alloc("rx_ring", 0x2000);
    driver.map("rx_ring");
    other.map("rx_ring", false, 0x1000);
    const auto refused = json_of(tarvoctl(machine, {"free", "rx_ring", "--json"}));
    EXPECT_EQ(refused.at("freed"), false);
    std::vector<pid_t> holders;
    for (const auto& each : refused.at("processes")) {
        holders.push_back(each.at("pid"));
    }
    std::vector<pid_t> expected{driver.pid(), other.pid()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(holders, expected);
    EXPECT_EQ(json_of(tarvoctl(machine, {"free", "rx_ring", "--json", "--force"})).at("freed"),
              true);
}

TEST(free, AChunkThatNobodyHasIsFreedWithoutATerminal) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 test", "alloc a 0x2000 test"});
    const auto outcome = tarvoctl(machine, {"free", "a"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(first_column(outcome), "a: freed");
    EXPECT_EQ(own_errors(outcome),
              "tarvoctl: 2 chunks are called 'a'; this is the lowest, at physical 0x0080000000\n");
    EXPECT_EQ(machine.area().view().chunks().at(1).size, 0x2000);
}

TEST(alloc, InARegionThatCannotBeIsRefusedBeforeTheCall) {
    for (const auto& [line, why] : std::vector<std::pair<std::string, std::string>>{
             {R"(80000001\t8fffffff\t0\ttarvo)",
              "describes a region that does not begin on a page"},
             {R"(90000000\t80000000\t0\ttarvo)", "describes an impossible region"},
             {R"(0\t1ffffffff\t0\ttarvo)", "describes an impossible region"},
             {R"(100000000\t2ffffffff\t0\ttarvo)", "describes a region of 8 GiB"}}) {
        sandbox machine(low, {"--region-line", line});
        const auto outcome = tarvoctl(machine, {"alloc", "a", "4K"});
        EXPECT_EQ(outcome.status, 3) << line;
        EXPECT_TRUE(starts_with(outcome.errors, "tarvoctl: /proc/tarvo " + why));
        EXPECT_FALSE(exists(machine.hardware_area())) << line;
    }
}

TEST(free, AsksWhereItCouldNotSeeWhoHasTheChunk) {
    sandbox machine(simulation);
    const client driver = machine.start({"alloc a 1 test", "map a 1 0 0"});
    const auto refused = tarvoctl_of_stranger(machine, {"free", "a"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(starts_with(refused.errors,
                            "tarvoctl: who has 'a' mapped is not all known: could not look into "));
    EXPECT_TRUE(ends_with(refused.errors,
                          "; run it as root to see more\n"
                          "tarvoctl: nothing was changed; --force does it without asking\n"));
    EXPECT_EQ(machine.area().view().chunks().size(), 3);
    EXPECT_EQ(tarvoctl_of_stranger(machine, {"free", "a", "--force"}).status, 0);
    EXPECT_EQ(machine.area().view().chunks().size(), 2);
}

TEST(free, AsksAtATerminalAndTakesOnlyYesForAYes) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 test"});
    for (const char* answer : {"n\n", "\n", "Yes please\n", "\x04"}) {
        terminal person(24, 80);
        running_tool tool = person.start(machine, {"free", "a"});
        person.type(answer);
        EXPECT_EQ(tool.program.wait(), (ending{1, 0}));
        EXPECT_TRUE(ends_with(tool.program.error_text(),
                              "Free 'a', 4 KiB? [y/N] tarvoctl: nothing was "
                              "changed; --force does it without asking\n"));
        EXPECT_EQ(machine.area().view().chunks().size(), 3);
    }
    terminal person(24, 80);
    running_tool tool = person.start(machine, {"free", "a"});
    person.type("y\n");
    EXPECT_EQ(tool.program.wait(), normal_end);
    person.output_with("a: freed, 4 KiB at DMA 0x80000000, physical 0x0080000000\r\n");
    EXPECT_EQ(machine.area().view().chunks().size(), 2);
}

TEST(free, AnUnknownNameIsAUsageErrorThatNamesSimilarOnes) {
    sandbox machine(low);
    const client driver = machine.start({"alloc rx_ring 1 test"});
    EXPECT_EQ(tarvoctl(machine, {"free", "rx_rnig"}),
              failed(2, "no chunk is called 'rx_rnig'; similar ones: rx_ring"));
}

TEST(free, ARefusalOfTheDriverIsAFinding) {
    sandbox machine(low);
    const client driver = machine.start({"register 0 3 0", "alloc a 1 test"});
    machine.add_rules({"op=unmap,errno=EIO"});
    const auto outcome = tarvoctl(machine, {"free", "a", "--force"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(ends_with(outcome.errors,
                          "Error IOMMU unmapping chunk Input/output error\n"
                          "tarvoctl: 'a' could not be freed; the reason is above\n"));
}

TEST(calls, WaitForTheLockNoLongerThanTheyMay) {
    sandbox machine(simulation);
    machine.start().alloc("a", 0x1000);
    const held_lock held(machine.lock_file());
    for (const arguments& words :
         std::vector<arguments>{{"alloc", "b", "4K"}, {"free", "a"}, {"dump"}}) {
        EXPECT_EQ(
            tarvoctl(machine, words + arguments{"--timeout", "0.1"}),
            failed(5, "the lock /var/tmp/tarvo_lock was not free within 0.1 s: " + this_process() +
                          " holds it; 'tarvoctl lock' shows more, --timeout waits longer"))
            << words.front();
    }
}

TEST(calls, NameAHolderOfTheLockThatIsStopped) {
    sandbox machine(simulation);
    client holder = machine.start({"dump_begin"});
    ASSERT_EQ(::kill(holder.pid(), SIGSTOP), 0);
    const std::string stat = "/proc/" + std::to_string(holder.pid()) + "/stat";
    EXPECT_TRUE(eventually([&] { return contains(file_text(stat), ") T "); }));
    const auto outcome = tarvoctl(machine, {"alloc", "b", "4K", "--timeout", "0.1"});
    ASSERT_EQ(::kill(holder.pid(), SIGCONT), 0);
    EXPECT_EQ(outcome.status, 5);
    const std::string pid = std::to_string(holder.pid());
    EXPECT_EQ(outcome.errors,
              "tarvoctl: the lock /var/tmp/tarvo_lock was not free within 0.1 s: " + pid +
                  " (tarvo-client) holds it and is stopped, kill -CONT " + pid +
                  " lets it go on; 'tarvoctl lock' shows more, --timeout waits longer\n");
}

/// 0 where it has none.
pid_t child_of(pid_t parent) {
    const std::string number = std::to_string(parent);
    pid_t child = 0;
    std::istringstream(file_text("/proc/" + number + "/task/" + number + "/children")) >> child;
    return child;
}

/// False when it ended instead.
bool comes_to_wait(running_tool& tool) {
    while (!waits_for_a_lock(tool.pid)) {
        if (tool.program.has_line(std::chrono::milliseconds(1))) {
            return false;
        }
    }
    return true;
}

/// Lets the tool, which allocates "b", have the lock as often as it takes it itself, each time with
/// somebody after it in the queue, and nobody else after that: its library finds it taken by
/// `second`, and waits. Nothing when the tool came before the one in the queue, which can happen.
std::optional<running_tool> waiting_in_the_library(sandbox& machine, client& first, client& second,
                                                   const std::string& timeout) {
    auto holder = std::make_unique<held_lock>(machine.lock_file());
    running_tool tool = start_tarvoctl(machine, {"alloc", "b", "4K", "--timeout", timeout});
    EXPECT_TRUE(comes_to_wait(tool)); // to look at the records, whether it may go on
    first.send("dump_begin");
    first.wait_until_it_waits_for_a_lock();
    holder.reset();
    first.reply();
    const bool waits = comes_to_wait(tool); // to see that the lock can be had
    if (waits) {
        second.send("dump_begin");
        second.wait_until_it_waits_for_a_lock();
    }
    first.call("dump_end");
    if (waits) {
        second.reply();
        while (!waits_for_a_lock(child_of(tool.pid))) {
            if (tool.program.has_line(std::chrono::milliseconds(1))) {
                break;
            }
        }
        // With "b" in the list it waits to look at what it has made.
        if (waits_for_a_lock(child_of(tool.pid)) && machine.area().view().chunks().size() == 3U) {
            return tool;
        }
        second.call("dump_end");
    }
    tool.program.wait();
    first.free("b");
    return std::nullopt;
}

class library_wait : public testing::Test {
  protected:
    /// As often as it takes.
    running_tool made_to_wait(const std::string& timeout) {
        for (;;) {
            if (auto tool = waiting_in_the_library(machine, first, second, timeout)) {
                return std::move(*tool);
            }
        }
    }

    sandbox machine{simulation};
    client first = machine.start({"alloc a 1 test"});
    client second = machine.start({"limits"});
};

TEST_F(library_wait, IsInterruptedWhenItsTimeIsOver) {
    running_tool tool = made_to_wait("3");
    EXPECT_EQ(tool.program.wait().status, 5);
    const std::string errors = tool.program.error_text();
    EXPECT_TRUE(starts_with(errors, "tarvo: failed to accquire lock: Interrupted system call\n"));
    EXPECT_TRUE(ends_with(
        errors, " (tarvo-client) holds it; 'tarvoctl lock' shows more, --timeout waits longer\n"));
}

TEST_F(library_wait, MakesNoChangeForAToolThatWasKilled) {
    running_tool tool = made_to_wait("600"); // a test waits for 60 s at the most
    const pid_t child = child_of(tool.pid);
    tool.end_by(SIGKILL);
    const std::string program = "/proc/" + std::to_string(child) + "/exe";
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(program); }));
    second.call("dump_end");
    while (waits_for_a_lock(child)) {
    }
    first.limits(); // after whoever waited
    EXPECT_EQ(machine.area().view().chunks().size(), 3U);
}

TEST(calls, LookingMakesNoFiles) {
    sandbox machine(simulation);
    for (const arguments& words : std::vector<arguments>{
             {"read", "a"}, {"find", "0x1000"}, {"translate", "0x1000"}, {"limits"}, {"dump"}}) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 3) << words.front();
        EXPECT_TRUE(starts_with(outcome.errors, "tarvoctl: there is no area: looked for "));
    }
    EXPECT_EQ(files_of(machine), std::vector<std::string>{});
}

TEST(calls, LookingMakesNoSecondLockOfASimulatedRegion) {
    sandbox machine(simulation);
    machine.start().alloc("a", 0x1000);
    std::filesystem::remove(machine.simulated_lock());
    EXPECT_EQ(tarvoctl(machine, {"dump"}),
              failed(3, "cannot open /var/tmp/tarvo_lock for reading: No such file or directory; "
                        "see 'tarvoctl doctor'"));
    EXPECT_FALSE(exists(machine.simulated_lock()));
}

class dump : public ::testing::TestWithParam<world> {};

TEST_P(dump, IsTheLibrarysOwnByteForByte) {
    sandbox machine(GetParam());
    client driver = machine.start({"alloc rx_ring 0x10000 driver"});
    driver.alloc("tx_ring", 0x1000, std::string(150, 'c'));
    driver.register_device(0, 3, 0);
    driver.register_device(0x10, 0x80, 0x21);
    std::string expected;
    for (const std::string& line : driver.dump()) {
        expected += line + '\n';
    }
    EXPECT_EQ(tarvoctl(machine, {"dump"}), printed(expected));
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(Worlds, dump, ::testing::ValuesIn(all_worlds()), world_name());

} // namespace

} // namespace calls_test
