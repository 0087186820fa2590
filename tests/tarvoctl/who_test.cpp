#include "tool.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

namespace who_test {

namespace {

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

/// The row about a process, word by word and without its user; what it is about comes first.
std::vector<std::string> row_of(const tool_outcome& outcome, pid_t pid, const std::string& about) {
    for (const auto& line : lines_of(outcome.output)) {
        auto words = words_of(line);
        const auto at = std::find(words.begin(), words.end(), std::to_string(pid));
        if (line.starts_with(about) && at != words.end() && words.end() - at > 2) {
            words.erase(at + 2);
            return words;
        }
    }
    return {};
}

using words = std::vector<std::string>;

class who_in_world : public testing::TestWithParam<world> {};

TEST_P(who_in_world, ShowsTheWindowAndAccessOfEachProcess) {
    sandbox machine(GetParam());
    client driver = machine.start();
    client agent = machine.start();
    driver.alloc("rx_ring", pages(16));
    driver.alloc("tx_ring", pages(4));
    driver.alloc("stats", pages(1));
    driver.map("rx_ring");
    agent.map("rx_ring", false, pages(1), pages(2));
    agent.map("tx_ring");
    const auto outcome = tarvoctl(machine, {"who"});
    const std::string own = std::to_string(driver.pid());
    const std::string other = std::to_string(agent.pid());
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(row_of(outcome, driver.pid(), "rx_ring"),
              (words{"rx_ring", "all", own, "tarvo-client", "read,", "write"}));
    EXPECT_EQ(row_of(outcome, agent.pid(), "rx_ring"),
              (words{"rx_ring", "0x1000-0x2fff", other, "tarvo-client", "read"}));
    EXPECT_EQ(row_of(outcome, agent.pid(), "tx_ring"),
              (words{"tx_ring", "all", other, "tarvo-client", "read,", "write"}));
    EXPECT_EQ(lines_of(with_all_seen(outcome.output)).back(), "Mapped by nobody: stats");
    EXPECT_EQ(lines_of(outcome.output).size(), 5U) << outcome.output;
}

/// What who says where it has no capabilities, in a machine of its own that this script starts.
std::string errors_beside(sandbox& machine, const std::string& others) {
    const std::string script = others + "setpriv --bounding-set=-all --inh-caps=-all \"$0\" who; :";
    return run_program(machine,
                       {"unshare", "--pid", "--fork", "--mount-proc", "sh", "-c", script, TARVOCTL})
        .errors;
}

TEST(who, CountsOneProcessThatIsKeptFromRootInTheSingular) {
    sandbox machine(simulation);
    machine.start({"alloc a 4096 me"}).finish();
    EXPECT_EQ(errors_beside(machine, ""), "tarvoctl: could not look into 1 process: 1 (sh); it is "
                                          "kept even from root on this machine\n");
    EXPECT_EQ(errors_beside(machine, "sleep 5 & "),
              "tarvoctl: could not look into 2 processes: 1 (sh), 2 (sleep); they are kept even "
              "from root on this machine\n");
}

INSTANTIATE_TEST_SUITE_P(EveryWorld, who_in_world, testing::ValuesIn(all_worlds()), world_name());

TEST(who, ShowsAMappingOfNeighboursForEachOfThem) {
    sandbox machine(low);
    client driver = machine.start({"alloc left 1 test", "alloc right 1 test", "map left 1 0 0"});
    driver.map("right"); // the kernel may make one mapping of the two
    const auto outcome = tarvoctl(machine, {"who"});
    const std::string own = std::to_string(driver.pid());
    EXPECT_EQ(row_of(outcome, driver.pid(), "left"),
              (words{"left", "all", own, "tarvo-client", "read,", "write"}));
    EXPECT_EQ(row_of(outcome, driver.pid(), "right"),
              (words{"right", "all", own, "tarvo-client", "read,", "write"}));
}

TEST(who, ShowsAMappingOfTheWholeRegionAsSuch) {
    sandbox machine(high);
    client driver = machine.start({"alloc rx_ring 1 test", "map_all"});
    const auto outcome = tarvoctl(machine, {"who", "rx_ring"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(row_of(outcome, driver.pid(), "(whole region)"),
              (words{"(whole", "region)", "all", std::to_string(driver.pid()), "tarvo-client",
                     "read,", "write"}));
    EXPECT_EQ(lines_of(with_all_seen(outcome.output)).back(),
              "Mapped by nobody but with the whole region: rx_ring");
    const auto document = json_of(tarvoctl(machine, {"who", "--json"}));
    EXPECT_EQ(document.at("whole_region").size(), 1U);
    EXPECT_EQ(document.at("chunks").at(0).at("mappings").size(), 0U);
    EXPECT_EQ(document.at("stale").size(), 0U);
}

TEST(who, ShowsMappingsThatOutliveTheirChunk) {
    sandbox machine(high);
    client driver = machine.start();
    client agent = machine.start();
    driver.alloc("rx_ring", pages(4));
    driver.alloc("tx_ring", pages(1));
    agent.map("rx_ring", false);
    driver.free("rx_ring");
    const auto outcome = tarvoctl(machine, {"who"});
    EXPECT_EQ(row_of(outcome, agent.pid(), "(freed)"),
              (words{"(freed)", "pa", "0x0200000000-0x0200003fff", std::to_string(agent.pid()),
                     "tarvo-client", "read"}));
    EXPECT_TRUE(contains(outcome.errors, "(freed): the mapping outlives its chunk"));
    const auto stale = json_of(tarvoctl(machine, {"who", "--json"})).at("stale");
    ASSERT_EQ(stale.size(), 1U);
    EXPECT_EQ(stale.at(0).at("pid"), agent.pid());
    EXPECT_EQ(stale.at(0).at("pa").at("hex"), "0x200000000");
    EXPECT_EQ(stale.at(0).at("size"), pages(4));
}

TEST(who, OfOneChunkEndsWithAFindingWhenNobodyMapsIt) {
    sandbox machine(low);
    const client driver =
        machine.start({"alloc rx_ring 1 test", "alloc stats 1 test", "map rx_ring 1 0 0"});
    EXPECT_EQ(tarvoctl(machine, {"who", "rx_ring"}).status, 0);
    const auto unmapped = tarvoctl(machine, {"who", "stats"});
    EXPECT_EQ(unmapped.status, 1);
    EXPECT_EQ(with_all_seen(unmapped.output), "Mapped by nobody: stats\n");
}

TEST(who, OfANameThatIsNotThereNamesSimilarOnes) {
    sandbox machine(low);
    const client driver =
        machine.start({"alloc rx_ring 1 test", "alloc tx_ring 1 test", "alloc unlike 1 test"});
    EXPECT_EQ(tarvoctl(machine, {"who", "RX_rng"}),
              failed(2, "no chunk is called 'RX_rng'; similar ones: rx_ring, tx_ring"));
    EXPECT_EQ(tarvoctl(machine, {"who", "zzz"}).errors,
              "tarvoctl: no chunk is called 'zzz'; 'tarvoctl list' shows those that exist\n");
}

TEST(who, GivesEachMappingAsJson) {
    sandbox machine(high);
    client driver = machine.start();
    driver.alloc("rx_ring", pages(8));
    const auto address = driver.map("rx_ring", true, pages(2), pages(3));
    const auto document = json_of(tarvoctl(machine, {"who", "rx_ring", "--json"}));
    EXPECT_EQ(document.at("command"), "who");
    const auto& mapping = document.at("chunks").at(0).at("mappings").at(0);
    EXPECT_EQ(mapping.at("pid"), driver.pid());
    EXPECT_EQ(mapping.at("command"), "tarvo-client");
    EXPECT_EQ(mapping.at("va").at("number"), address);
    EXPECT_EQ(mapping.at("pa").at("number"), 0x200000000 + pages(2));
    EXPECT_EQ(mapping.at("offset"), pages(2));
    EXPECT_EQ(mapping.at("size"), pages(3));
    EXPECT_EQ(mapping.at("write"), true);
    EXPECT_EQ(mapping.at("shared"), true);
}

TEST(who, SaysWhichProcessesItCouldNotSee) {
    sandbox machine(low);
    client driver = machine.start({"alloc rx_ring 1 test", "map rx_ring 1 0 0"});
    // A process cannot look into one that has more rights than it has.
    process tool = machine.start_process(
        {"setpriv", "--bounding-set", "-all", "--inh-caps", "-all", TARVOCTL, "who", "--json"});
    std::string text;
    while (const auto line = tool.read_line()) {
        text += *line;
    }
    const auto document = nlohmann::json::parse(text);
    EXPECT_EQ(document.at("chunks").at(0).at("mappings").size(), 0U);
    const auto& unseen = document.at("unseen").at("processes");
    EXPECT_NE(std::find(unseen.begin(), unseen.end(), driver.pid()), unseen.end()) << text;
}

TEST(who, DoesNotPassOffWhatItCouldNotSeeAsNobody) {
    sandbox machine(simulation);
    const client driver = machine.start({"alloc rx_ring 1 test", "map rx_ring 1 0 0"});
    const auto outcome = tarvoctl_of_stranger(machine, {"who"});
    EXPECT_EQ(outcome.output, "Mapped by nobody that can be seen: rx_ring\n");
}

TEST(who, ShowsThoseWhoMapAMemoryThatWasRemoved) {
    sandbox machine(simulation);
    client driver = machine.start({"alloc rx_ring 1 test", "map rx_ring 1 0 0"});
    std::filesystem::remove(machine.memory_file());
    const auto outcome = tarvoctl(machine, {"who", "rx_ring"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(row_of(outcome, driver.pid(), "rx_ring"),
              (words{"rx_ring", "all", std::to_string(driver.pid()), "tarvo-client", "read,",
                     "write,", "removed", "memory"}));
    const auto mapped = [&] {
        return json_of(tarvoctl(machine, {"who", "--json"})).at("chunks").at(0).at("mappings");
    };
    EXPECT_EQ(mapped().at(0).at("removed"), true);
    client other = machine.start();
    other.map("rx_ring"); // of a new memory
    EXPECT_EQ(mapped().size(), 2U);
    EXPECT_NE(mapped().at(0).at("removed"), mapped().at(1).at("removed"));
    const auto refused = tarvoctl(machine, {"free", "rx_ring"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(contains(refused.errors, std::to_string(driver.pid()) + " (tarvo-client)"));
}

TEST(who, MakesNoFileWhereThereIsNoArea) {
    sandbox machine(simulation);
    EXPECT_EQ(tarvoctl(machine, {"who"}).status, 3);
    EXPECT_EQ(files_of(machine), std::vector<std::string>{});
}

} // namespace

} // namespace who_test
