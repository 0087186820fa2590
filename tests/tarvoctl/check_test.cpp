#include "tool.hpp"

#include <fstream>
#include <gtest/gtest.h>

namespace {

/// Three chunks, elements 2 to 4.
void fill(sandbox& machine) {
    client driver = machine.start();
    driver.alloc("first", 0x1000);
    driver.alloc("second", 0x1000);
    driver.alloc("third", 0x1000);
}

TEST(Check, ASoundAreaIsSound) {
    for (const world& each : all_worlds()) {
        sandbox machine(each);
        fill(machine);
        machine.start().register_device(0, 3, 0);
        const auto outcome = tarvoctl(machine, {"check"});
        EXPECT_EQ(outcome.output, "the area is sound\n") << each.name;
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(Check, ALostElementIsAFinding) {
    sandbox machine(low);
    fill(machine);
    // Off the free chain: it stays unused for ever.
    auto area = machine.writable_area();
    const int lost = area.view().chunk_ends().free;
    area.writer().i32(area_offset::chunks_free, area.view().chunk(lost).next);
    const auto outcome = tarvoctl(machine, {"check"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(lines_of(outcome.output).at(0).substr(0, 19), "leaked     chunk 5:");
    const auto document = json_of(tarvoctl(machine, {"check", "--json"}));
    EXPECT_EQ(document.at("verdict"), "usable");
    EXPECT_EQ(document.at("findings").at(0).at("class"), "leaked");
    EXPECT_EQ(document.at("findings").at(0).at("element"), 5);
}

TEST(Check, ABrokenLinkIsDamage) {
    sandbox machine(low);
    fill(machine);
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 4);
    const auto outcome = tarvoctl(machine, {"check"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(lines_of(outcome.output).back(),
              "the area is broken: 'tarvoctl repair' shows what can be done");
    EXPECT_EQ(json_of(tarvoctl(machine, {"check", "--json"})).at("verdict"), "broken");
}

TEST(Check, ComparesTheAreaWithTheRegionTheDriverDescribes) {
    sandbox machine(low);
    fill(machine);
    auto area = machine.writable_area();
    const auto tail = static_cast<std::size_t>(area.view().chunk_ends().tail);
    area.writer().u64(area_offset::chunk(static_cast<int>(tail)) + area_offset::pa,
                      low.end() - 0x1000);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 1);
    // A copy may come from another machine.
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    EXPECT_EQ(tarvoctl(machine, {"snapshot", copy}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check", copy}).status, 0);
}

TEST(Check, SaysWhatIsNoArea) {
    sandbox machine(low);
    const temporary_folder folder;
    const std::string file = folder.path() / "short";
    std::ofstream(file) << "short";
    const auto outcome = tarvoctl(machine, {"check", file});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(outcome.errors, "tarvoctl: " + file +
                                  " is no area: it has 5 bytes, and an area has at least "
                                  "70130716\n");
    const auto missing = tarvoctl(machine, {"check", "/nowhere"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_EQ(missing.errors, "tarvoctl: /nowhere is not there\n");
}

TEST(Snapshot, IsAConsistentCopyThatAllCommandsRead) {
    sandbox machine(high);
    fill(machine);
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    const auto outcome = tarvoctl(machine, {"snapshot", copy});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, copy + " holds the area as it was; 'tarvoctl list --area', 'check' "
                                     "and 'diff' read it\n");
    EXPECT_EQ(area_file(copy).snapshot(), machine.area().snapshot());
    EXPECT_EQ(mode_of(copy), "0600");
    machine.start().free("second");
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", copy, "-o", "name", "--no-header"}).output,
              "first\nsecond\nthird\n");
}

TEST(Snapshot, NeverReplacesAFileUnasked) {
    sandbox machine(low);
    fill(machine);
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    std::ofstream(copy) << "precious";
    const auto refused = tarvoctl(machine, {"snapshot", copy});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.errors, "tarvoctl: cannot write " + copy +
                                  ": File exists; name another file, or --force replaces it\n");
    EXPECT_EQ(file_text(copy), "precious");
    EXPECT_EQ(tarvoctl(machine, {"snapshot", "--force", copy}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check", copy}).status, 0);
}

TEST(Diff, TellsWhatChangedSinceASnapshot) {
    sandbox machine(low);
    fill(machine);
    const temporary_folder folder;
    const std::string before = folder.path() / "before";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", before}).status, 0);
    const auto nothing = tarvoctl(machine, {"diff", before});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.output, "");

    client driver = machine.start();
    driver.free("second");
    driver.register_device(0, 3, 0);
    const auto since = tarvoctl(machine, {"diff", before, "--json"});
    EXPECT_EQ(since.status, 1);
    std::vector<std::string> words;
    const auto document = json_of(since);
    for (const auto& each : document.at("changes"))
        words.push_back(each.at("change"));
    EXPECT_EQ(words, (std::vector<std::string>{"freed", "registered", "mapped", "mapped"}));

    const std::string after = folder.path() / "after";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", after}).status, 0);
    driver.free("first");
    const auto between = tarvoctl(machine, {"diff", before, after});
    EXPECT_EQ(between.status, 1);
    EXPECT_EQ(lines_of(between.output).size(), 4U);
    EXPECT_EQ(tarvoctl(machine, {"diff", after, after}).status, 0);
}

} // namespace
