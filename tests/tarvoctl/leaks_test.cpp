#include "tool.hpp"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

namespace leaks_test {

namespace {

std::vector<std::string> suspects_of(sandbox& machine) {
    const auto document = json_of(tarvoctl(machine, {"leaks", "--json"}));
    std::vector<std::string> names;
    for (const auto& each : document.at("suspects")) {
        names.push_back(each.at("name"));
    }
    return names;
}

using names = std::vector<std::string>;

TEST(leaks, SuspectsChunksWithNeitherMappingNorCreator) {
    sandbox machine(high);
    client driver = machine.start({"alloc kept 1 gone_agent"});
    driver.alloc("dropped", pages(2), "gone_agent");
    driver.alloc("own", pages(1), "tarvo-client");
    driver.map("kept");
    EXPECT_EQ(suspects_of(machine), names{"dropped"});
    const auto outcome = tarvoctl(machine, {"leaks"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(with_all_seen(outcome.output)
                    .starts_with("dropped  8 KiB, created by gone_agent\n"
                                 "  for      no process has it mapped\n"
                                 "  for      no program called 'gone_agent' runs\n"
                                 "  for      it is mapped for no device\n"))
        << outcome.output;
    EXPECT_TRUE(contains(outcome.output, "1 suspect, 8 KiB in all; nothing was freed."));
    EXPECT_EQ(driver.dump().size(), 3U);
}

TEST(leaks, ListsTheLargestAndCountsAll) {
    sandbox machine(low);
    client driver = machine.start();
    for (int i = 0; i < 100; ++i) {
        driver.alloc("chunk_" + std::to_string(i), pages(i == 99 ? 2 : 1), "gone_agent");
    }
    const auto some = tarvoctl(machine, {"leaks"});
    EXPECT_EQ(some.status, 1);
    const auto lines = lines_of(some.output);
    const auto listed = [](const std::vector<std::string>& found) {
        return std::count_if(found.begin(), found.end(),
                             [](const auto& line) { return line.starts_with("chunk_"); });
    };
    EXPECT_EQ(listed(lines), 20);
    EXPECT_TRUE(contains(some.output, "chunk_99  8 KiB"));
    EXPECT_TRUE(contains(some.output,
                         "\nThe 20 largest of 100 suspects; 'tarvoctl leaks --all' lists all\n"));
    EXPECT_TRUE(starts_with(lines.back(), "100 suspects, 404 KiB in all; nothing was freed."));
    EXPECT_EQ(listed(lines_of(tarvoctl(machine, {"leaks", "--all"}).output)), 100);
    EXPECT_EQ(suspects_of(machine).size(), 100U);
}

TEST(leaks, KnowsTheCreatorByItsPathAndItsFirstWord) {
    sandbox machine(low);
    client driver = machine.start();
    driver.alloc("by_path", pages(1), "/usr/bin/tarvo-client");
    driver.alloc("by_word", pages(1), "tarvo-client: port 3");
    driver.alloc("other", pages(1), "tarvo-clientele");
    EXPECT_EQ(suspects_of(machine), names{"other"});
}

TEST(leaks, SpeaksAgainstItWhereADeviceMayUseTheChunk) {
    sandbox machine(low);
    const client driver = machine.start({"alloc rx_ring 1 gone_agent", "register 0 3 0"});
    const auto outcome = tarvoctl(machine, {"leaks"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(
        contains(outcome.output, "  against  mapped for 0000:03:00.0, which may be using it\n"));
    EXPECT_FALSE(contains(outcome.output, "mapped for no device"));
}

TEST(leaks, SpeaksAgainstItWhereTheCreatorIsNoProgramsName) {
    sandbox machine(low);
    client driver = machine.start();
    driver.alloc("rx_ring", pages(1), "DMA test, John");
    EXPECT_TRUE(contains(tarvoctl(machine, {"leaks"}).output,
                         "  against  its creator 'DMA test, John' is not the name of a program"));
}

TEST(leaks, SpeaksAgainstItWhereSomebodyMapsTheWholeRegion) {
    sandbox machine(high);
    client driver = machine.start({"alloc rx_ring 1 gone_agent", "map_all"});
    EXPECT_TRUE(contains(tarvoctl(machine, {"leaks"}).output,
                         "  against  seen through a mapping of the whole region by " +
                             std::to_string(driver.pid()) + " (tarvo-client)\n"));
}

TEST(leaks, EndsWellWhenThereIsNoSuspect) {
    sandbox machine(simulation);
    const client driver = machine.start({"alloc rx_ring 1 gone_agent", "map rx_ring 1 0 0"});
    const auto outcome = tarvoctl(machine, {"leaks"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output,
              "No suspects: of every chunk, a process has it mapped or its creator runs\n");
    EXPECT_EQ(json_of(tarvoctl(machine, {"leaks", "--json"})).at("suspects"),
              nlohmann::json::array());
}

TEST(leaks, SaysThatItsReasonsAreOnlyWhatCanBeSeen) {
    sandbox machine(simulation);
    const client driver = machine.start({"alloc rx_ring 1 gone_agent", "map rx_ring 1 0 0"});
    const auto outcome = tarvoctl_of_stranger(machine, {"leaks"});
    EXPECT_TRUE(contains(outcome.output, "  for      no process that can be seen has it mapped\n"));
    EXPECT_TRUE(contains(outcome.output, "no program that can be seen called 'gone_agent' runs\n"));
}

TEST(leaks, SuspectsNothingOfARemovedMemoryThatIsMapped) {
    sandbox machine(simulation);
    const client driver = machine.start({"alloc rx_ring 1 gone_agent", "map rx_ring 1 0 0"});
    std::filesystem::remove(machine.memory_file());
    EXPECT_EQ(suspects_of(machine), names{});
}

TEST(leaks, SuspectsWhatAProcessThatDiedHadMapped) {
    sandbox machine(low);
    client driver = machine.start();
    {
        client agent = machine.start({"alloc rx_ring 1 gone_agent", "map rx_ring 1 0 0"});
        EXPECT_EQ(suspects_of(machine), names{});
        agent.kill(SIGKILL);
    }
    EXPECT_EQ(suspects_of(machine), names{"rx_ring"});
}

} // namespace

} // namespace leaks_test
