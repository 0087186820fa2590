#include "tool.hpp"

#include <fstream>
#include <gtest/gtest.h>

namespace streams_test {

// Standard input, output and error that cannot be used.

namespace {

/// Runs the tool by a shell that gives it its descriptors, as in "list >/dev/full".
ending run(sandbox& machine, const std::string& words, std::string& errors) {
    process shell = machine.start_process({"sh", "-c", "LC_ALL=C exec " TARVOCTL " " + words});
    const ending end = shell.wait();
    errors = shell.error_text();
    return end;
}

TEST(streams, WhatCannotBeWrittenIsReported) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 me"});
    const taken_snapshot copy(machine);
    for (const std::string words :
         {"list", "list --json", "check", "doctor", "map", "limits", "read a", "read a --raw",
          "dump", "alloc a 1", "write a </dev/null", "watch", "top", "--help"}) {
        std::string errors;
        const ending end = run(machine, words + " >/dev/full", errors);
        EXPECT_EQ(end.status, 3) << words;
        EXPECT_EQ(errors, "tarvoctl: cannot write to standard output: No space left on device\n")
            << words;
    }
}

TEST(streams, ThoseThatAreClosedCannotBeUsed) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 me"});
    for (const auto& [words, use] : {std::pair{"write a <&-", "read standard input"},
                                     {"list >&-", "write to standard output"}}) {
        std::string errors;
        EXPECT_EQ(run(machine, words, errors).status, 3) << words;
        EXPECT_EQ(errors, std::string("tarvoctl: cannot ") + use + ": Bad file descriptor\n");
    }
}

TEST(streams, MessagesNeverGoIntoTheMemory) {
    sandbox machine(simulation);
    machine.start().alloc("a", 0x1000);
    std::string errors;
    // The library says something about the size.
    const ending end = run(machine, "alloc a 8K --duplicate <&- >&- 2>&-", errors);
    EXPECT_EQ(end.status, 3);
    EXPECT_EQ(machine.area().view().chunks().size(), 4U);
    std::string start(0x10000, '?');
    EXPECT_TRUE(std::ifstream(machine.memory_file()).read(start.data(), 0x10000));
    EXPECT_FALSE(contains(start, "tarvo"));
}

TEST(streams, WithoutRoomForMessagesTheStatusTells) {
    sandbox machine(simulation);
    std::string errors;
    EXPECT_EQ(run(machine, "list 2>/dev/full", errors).status, 3);
    EXPECT_EQ(run(machine, "list --sort nothing 2>&-", errors).status, 2);
}

TEST(streams, AWrongWordIsNamed) {
    sandbox machine(simulation);
    const std::vector<std::pair<std::vector<std::string>, std::string>> refused{
        {{"bogus"}, "unknown command 'bogus'; 'tarvoctl --help' lists the commands"},
        {{}, "no command given; 'tarvoctl --help' lists the commands"},
        {{"--bytes", "list"}, "unknown option '--bytes' before the command; see 'tarvoctl --help'"},
        {{"list", "--bogus"}, "unknown option '--bogus'; see 'tarvoctl list --help'"},
        {{"list", "bogus"}, "unexpected argument 'bogus'; see 'tarvoctl list --help'"},
        {{"show"}, "NAME is missing; see 'tarvoctl show --help'"},
        {{"list", "--area"}, "--area needs a value; see 'tarvoctl list --help'"},
        {{"list", "--sort", "pa", "--sort", "name"},
         "--sort is given 2 times; give it once; see 'tarvoctl list --help'"},
        {{"list", "--bytes=x"}, "--bytes takes no value; see 'tarvoctl list --help'"},
        {{"translate", "--pa", "--dma", "1"},
         "--pa and --dma exclude each other; give one of them; see 'tarvoctl translate --help'"},
        {{"list", "--sort", "colour"},
         "--sort 'colour': give one of pa, dma, name, size, creator, index"},
        {{"list", "--timeout", "-1"}, "--timeout '-1': give a number of seconds, 0 or more"},
        {{"list", "--timeout", "soon"}, "--timeout 'soon': give a number of seconds, 0 or more"},
        {{"top", "--interval", "0"}, "--interval '0': give 0.01 to 86400 seconds"}};
    for (const auto& [words, text] : refused) {
        EXPECT_EQ(tarvoctl(machine, words), failed(2, text)) << text;
    }
}

} // namespace

} // namespace streams_test
