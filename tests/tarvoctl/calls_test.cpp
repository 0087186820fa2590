#include "lock_table.hpp"
#include "terminal.hpp"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace calls_test {

namespace {

std::string first_column(const tool_outcome& outcome) {
    return outcome.output.substr(0, outcome.output.find(','));
}

TEST(alloc, MakesAChunkOnceAndSharesItThen) {
    sandbox machine(high);
    const auto made = tarvoctl(machine, {"alloc", "rx_ring", "64K", "--creator", "shell"});
    EXPECT_EQ(made.status, 0);
    EXPECT_EQ(made.output, "rx_ring: new, 64 KiB at DMA 0x20000000, physical 0x0200000000\n");
    EXPECT_EQ(made.errors, "");
    const auto shared = tarvoctl(machine, {"alloc", "rx_ring", "65535"});
    EXPECT_EQ(shared.status, 0);
    EXPECT_EQ(shared.output, "rx_ring: shared, it was there, 64 KiB at DMA 0x20000000, "
                             "physical 0x0200000000\n");
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
    client driver = machine.start();
    driver.alloc("stats", 0x1000);
    const auto refused = tarvoctl(machine, {"alloc", "stats", "8K"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.errors, "tarvoctl: there is a chunk 'stats' of 4 KiB (4096 bytes), not 8 KiB "
                              "(8192 bytes); ask for that size, or "
                              "for a second chunk of the name with --duplicate\n");
    EXPECT_EQ(machine.area().view().chunks().size(), 3);
    const auto made = tarvoctl(machine, {"alloc", "stats", "8K", "--duplicate"});
    EXPECT_EQ(made.status, 0);
    EXPECT_EQ(made.output, "stats: new, 8 KiB at DMA 0x80001000, physical 0x0080001000\n");
    EXPECT_EQ(made.errors, "tarvo: find_chunk_desc() size mismatch, see tarvo\n\n");
}

TEST(alloc, WhatWouldEndTheLibrarysProcessIsRefusedBeforeTheCall) {
    sandbox machine(low);
    const auto message = [&](const std::vector<std::string>& words) {
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
    EXPECT_EQ(message({"alloc", "a ", "1"}),
              "tarvoctl: the name 'a ' ends in a blank, which a listing cannot show; leave it "
              "out\n");
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
    client driver = machine.start();
    driver.alloc("a", 0x1000);
    const auto outcome = tarvoctl(machine, {"alloc", "big", "256M"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "tarvoctl: no room for 'big': it takes 262144 KiB, the largest gap has 262140 KiB, "
              "all gaps together 262140 KiB; see 'tarvoctl map'\n");
}

TEST(alloc, TellsThatTheKernelGaveNothing) {
    sandbox machine(cma, {"--rule", "op=allocate,errno=ENOMEM"});
    machine.start().limits();
    const auto outcome = tarvoctl(machine, {"alloc", "a", "4K"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.errors.find("tarvoctl: the kernel driver gave no place for 4 KiB\n"),
              std::string::npos)
        << outcome.errors;
}

TEST(alloc, TheLibrarysLastWordIsAFailureAndNotTheEndOfTheTool) {
    sandbox machine(low);
    client driver = machine.start();
    driver.register_device(0, 3, 0);
    machine.add_rules({"op=map,errno=EIO"});
    const auto outcome = tarvoctl(machine, {"alloc", "a", "4K"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.errors.find("Error IOMMU mapping chunk Input/output error\n"),
              std::string::npos);
    EXPECT_TRUE(outcome.errors.ends_with(
        "tarvoctl: the library ended the call with SIGABRT; its reason is above. 'tarvoctl "
        "check' shows whether the area is intact\n"))
        << outcome.errors;
}

TEST(alloc, WithoutARegionItSaysWhatIsMissing) {
    sandbox machine(low, {"--without", "proc"});
    const auto outcome = tarvoctl(machine, {"alloc", "a", "4K"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors,
              "tarvoctl: there is no region: /proc/tarvo is missing or does not describe one, and "
              "SIMULATION_VMID is not set and /var/tmp/tarvo does not exist. Load the kernel "
              "driver, or run with SIMULATION_VMID set\n");
    EXPECT_FALSE(exists(machine.shared_area()));
}

TEST(free, NamesWhoHasTheChunkAndRefusesWithoutATerminal) {
    sandbox machine(low);
    client driver = machine.start();
    driver.alloc("rx_ring", 0x1000);
    driver.register_device(0, 3, 0);
    driver.map("rx_ring");
    const std::string holder = std::to_string(driver.pid()) + " (tarvo-client)";
    const std::string effects = "tarvoctl: 'rx_ring' is mapped by " + holder +
                                ", which would go on seeing memory that may become another "
                                "chunk's\n"
                                "tarvoctl: 'rx_ring' is mapped for 0000:03:00.0, which would lose "
                                "it\n";
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
    client driver = machine.start();
    driver.alloc("a", 0x1000);
    driver.alloc("a", 0x2000);
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
        EXPECT_TRUE(outcome.errors.starts_with("tarvoctl: /proc/tarvo " + why)) << outcome.errors;
        EXPECT_FALSE(exists(machine.hardware_area())) << line;
    }
}

TEST(free, AsksWhereItCouldNotSeeWhoHasTheChunk) {
    sandbox machine(simulation);
    client driver = machine.start();
    driver.alloc("a", 0x1000);
    driver.map("a");
    const auto refused = tarvoctl_of_stranger(machine, {"free", "a"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.errors.starts_with(
        "tarvoctl: who has 'a' mapped is not all known: could not look into "))
        << refused.errors;
    EXPECT_TRUE(
        refused.errors.ends_with("; run it as root to see more\n"
                                 "tarvoctl: nothing was changed; --force does it without asking\n"))
        << refused.errors;
    EXPECT_EQ(machine.area().view().chunks().size(), 3);
    EXPECT_EQ(tarvoctl_of_stranger(machine, {"free", "a", "--force"}).status, 0);
    EXPECT_EQ(machine.area().view().chunks().size(), 2);
}

TEST(free, AsksAtATerminalAndTakesOnlyYesForAYes) {
    sandbox machine(low);
    client driver = machine.start();
    driver.alloc("a", 0x1000);
    for (const char* answer : {"n\n", "\n", "Yes please\n", "\x04"}) {
        terminal person(24, 80);
        running_tool tool = person.start(machine, {"free", "a"});
        person.type(answer);
        EXPECT_EQ(tool.program.wait(), (ending{1, 0}));
        EXPECT_TRUE(tool.program.error_text().ends_with(
            "Free 'a', 4 KiB? [y/N] "
            "tarvoctl: nothing was changed; --force does it without asking\n"))
            << tool.program.error_text();
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
    client driver = machine.start();
    driver.alloc("rx_ring", 0x1000);
    const auto outcome = tarvoctl(machine, {"free", "rx_rnig"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "tarvoctl: no chunk is called 'rx_rnig'; similar ones: rx_ring\n");
}

TEST(free, ARefusalOfTheDriverIsAFinding) {
    sandbox machine(low);
    client driver = machine.start();
    driver.register_device(0, 3, 0);
    driver.alloc("a", 0x1000);
    machine.add_rules({"op=unmap,errno=EIO"});
    const auto outcome = tarvoctl(machine, {"free", "a", "--force"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.errors.ends_with("Error IOMMU unmapping chunk Input/output error\n"
                                         "tarvoctl: 'a' could not be freed; the reason is above\n"))
        << outcome.errors;
}

TEST(calls, WaitForTheLockNoLongerThanTheyMay) {
    sandbox machine(simulation);
    machine.start().alloc("a", 0x1000);
    const held_lock held(machine.lock_file());
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"alloc", "b", "4K"}, {"free", "a"}, {"dump"}}) {
        std::vector<std::string> hurried = words;
        hurried.insert(hurried.end(), {"--timeout", "0.1"});
        const auto outcome = tarvoctl(machine, hurried);
        EXPECT_EQ(outcome.status, 5) << words.front();
        EXPECT_EQ(
            outcome.errors,
            "tarvoctl: the lock /var/tmp/tarvo_lock was not free within 0.1 s: " + this_process() +
                " holds it; 'tarvoctl lock' shows more, --timeout waits longer\n");
    }
}

TEST(calls, NameAHolderOfTheLockThatIsStopped) {
    sandbox machine(simulation);
    client holder = machine.start({"dump_begin"});
    ASSERT_EQ(::kill(holder.pid(), SIGSTOP), 0);
    const std::string stat = "/proc/" + std::to_string(holder.pid()) + "/stat";
    while (file_text(stat).find(") T ") == std::string::npos) {
        usleep(1000);
    }
    const auto outcome = tarvoctl(machine, {"alloc", "b", "4K", "--timeout", "0.1"});
    ASSERT_EQ(::kill(holder.pid(), SIGCONT), 0);
    EXPECT_EQ(outcome.status, 5);
    const std::string pid = std::to_string(holder.pid());
    EXPECT_EQ(outcome.errors,
              "tarvoctl: the lock /var/tmp/tarvo_lock was not free within 0.1 s: " + pid +
                  " (tarvo-client) holds it and is stopped, kill -CONT " + pid +
                  " lets it go on; 'tarvoctl lock' shows more, --timeout waits "
                  "longer\n");
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

/// As often as it takes.
running_tool made_to_wait_in_the_library(sandbox& machine, client& first, client& second,
                                         const std::string& timeout) {
    for (;;) {
        if (auto tool = waiting_in_the_library(machine, first, second, timeout)) {
            return std::move(*tool);
        }
    }
}

TEST(calls, AWaitInsideTheLibraryIsInterrupted) {
    sandbox machine(simulation);
    client first = machine.start();
    client second = machine.start();
    first.alloc("a", 0x1000);
    second.limits();
    running_tool tool = made_to_wait_in_the_library(machine, first, second, "3");
    EXPECT_EQ(tool.program.wait().status, 5);
    const std::string errors = tool.program.error_text();
    EXPECT_TRUE(errors.starts_with("tarvo: failed to accquire lock: Interrupted system call\n"))
        << errors;
    EXPECT_TRUE(errors.ends_with(
        " (tarvo-client) holds it; 'tarvoctl lock' shows more, --timeout waits longer\n"))
        << errors;
}

/// Whether it ends within a few seconds.
bool ends_soon(pid_t pid) {
    constexpr int looks = 500;
    for (int look = 0; look < looks; ++look) {
        if (!std::filesystem::exists("/proc/" + std::to_string(pid) + "/exe")) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{10});
    }
    return false;
}

TEST(calls, AKilledToolMakesNoChangeOnceItCouldHaveTheLock) {
    sandbox machine(simulation);
    client first = machine.start();
    client second = machine.start();
    first.alloc("a", 0x1000);
    second.limits();
    running_tool tool = made_to_wait_in_the_library(machine, first, second, "60");
    const pid_t child = child_of(tool.pid);
    tool.end_by(SIGKILL);
    EXPECT_TRUE(ends_soon(child));
    second.call("dump_end");
    while (waits_for_a_lock(child)) {
    }
    first.limits(); // after whoever waited
    EXPECT_EQ(machine.area().view().chunks().size(), 3U);
}

TEST(calls, LookingMakesNoFiles) {
    sandbox machine(simulation);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"read", "a"}, {"find", "0x1000"}, {"translate", "0x1000"}, {"limits"}, {"dump"}}) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 3) << words.front();
        EXPECT_TRUE(outcome.errors.starts_with("tarvoctl: there is no area: looked for "));
    }
    EXPECT_FALSE(exists(machine.shared_area()));
    EXPECT_FALSE(exists(machine.memory_file()));
    EXPECT_FALSE(exists(machine.lock_file()));
}

TEST(calls, LookingMakesNoSecondLockOfASimulatedRegion) {
    sandbox machine(simulation);
    machine.start().alloc("a", 0x1000);
    std::filesystem::remove(machine.simulated_lock());
    const auto outcome = tarvoctl(machine, {"dump"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors, "tarvoctl: cannot open /var/tmp/tarvo_lock for reading: No such file "
                              "or directory; see 'tarvoctl doctor'\n");
    EXPECT_FALSE(exists(machine.simulated_lock()));
}

class dump : public ::testing::TestWithParam<world> {};

TEST_P(dump, IsTheLibrarysOwnByteForByte) {
    sandbox machine(GetParam());
    client driver = machine.start();
    driver.alloc("rx_ring", 0x10000, "driver");
    driver.alloc("tx_ring", 0x1000, std::string(150, 'c'));
    driver.register_device(0, 3, 0);
    driver.register_device(0x10, 0x80, 0x21);
    std::string expected;
    for (const std::string& line : driver.dump()) {
        expected += line + '\n';
    }
    const auto outcome = tarvoctl(machine, {"dump"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, expected);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(Worlds, dump, ::testing::ValuesIn(all_worlds()), world_name());

} // namespace

} // namespace calls_test
