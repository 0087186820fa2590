#include "tool.hpp"

#include <gtest/gtest.h>

namespace show_test {

namespace {

TEST(show, TellsAllOfAChunkItsNeighboursAndItsUsers) {
    sandbox machine(high);
    client driver = machine.start({"alloc below 0x10000 driver_a", "alloc hole 1 test",
                                   "register 0 3 0", "alloc shown 0x4000 driver_b", "free hole"});
    driver.map("shown", false, 0x1000, 0x2000);
    const auto outcome = tarvoctl(machine, {"show", "shown"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "name       shown\n"
                              "physical   0x0200011000-0x0200014fff\n"
                              "DMA        0x20011000-0x20014fff\n"
                              "size       16 KiB (16384 bytes)\n"
                              "creator    driver_b\n"
                              "record     4\n"
                              "below      below, 4 KiB between\n"
                              "above      the region's end, 1048492 KiB between\n"
                              "devices    0000:03:00.0\n"
                              "mapped by  " +
                                  std::to_string(driver.pid()) +
                                  " (tarvo-client), bytes 0x1000-0x2fff, read only\n");
    const auto document = json_of(tarvoctl(machine, {"show", "--json", "shown"}));
    const auto& chunk = document.at("chunks").at(0);
    EXPECT_EQ(chunk.at("below").at("gap_bytes"), 4096);
    EXPECT_EQ(chunk.at("above").at("name"), nullptr);
    EXPECT_EQ(chunk.at("mappings").at(0).at("process").at("pid"), driver.pid());
    EXPECT_EQ(chunk.at("mappings").at(0).at("offset"), 4096);
    EXPECT_EQ(chunk.at("mappings").at(0).at("writable"), false);
}

TEST(show, ShowsAllChunksOfThatName) {
    sandbox machine(low);
    const client driver = machine.start({"alloc twin 1 test", "alloc twin 0x2000 test"});
    const auto lines = lines_of(tarvoctl(machine, {"show", "twin"}).output);
    ASSERT_EQ(lines.size(), 21U);
    EXPECT_EQ(lines[0], "name       twin");
    // "that can be seen", where there are processes that nobody can look into.
    EXPECT_EQ(lines[9].substr(0, 17), "mapped by  nobody");
    EXPECT_EQ(lines[11], "name       twin  (calls by name find record 2 at physical 0x0080000000)");
    EXPECT_EQ(lines[5], "record     2");
}

TEST(show, ReadsACopyWhoseChunksNobodyMaps) {
    sandbox machine(low);
    const client driver = machine.start({"alloc chunk 1 test", "map chunk 1 0 0"});
    const taken_snapshot copy(machine);
    const auto outcome = tarvoctl(machine, {"show", "chunk", "--area", copy.path});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_FALSE(contains(outcome.output, "mapped by"));
}

TEST(show, ANameThatIsNotThereIsAUsageError) {
    sandbox machine(low);
    machine.start().alloc("chunk", 0x1000);
    EXPECT_EQ(tarvoctl(machine, {"show", "chink"}),
              failed(2, "no chunk is called 'chink'; similar ones: chunk"));
}

} // namespace

} // namespace show_test
