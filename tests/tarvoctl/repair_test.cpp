#include "tool.hpp"

#include <gtest/gtest.h>

namespace {

/// Three chunks, elements 2 to 4, made by a process that has ended. The second one's back link
/// points where it should not. With --force, as there may be processes on the machine that nobody
/// can look into.
class Repair : public testing::Test {
  protected:
    Repair() {
        {
            client driver = machine.start();
            driver.alloc("first", 0x1000);
            driver.alloc("second", 0x1000);
            driver.alloc("third", 0x1000);
        }
        sound = machine.area().snapshot();
        machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 4);
        broken = machine.area().snapshot();
    }

    bool is_sound() const { return machine.area().snapshot() == sound; }
    bool is_untouched() const { return machine.area().snapshot() == broken; }

    sandbox machine{low};
    temporary_folder folder;
    std::string backup = folder.path() / "backup";
    std::vector<uint8_t> sound;
    std::vector<uint8_t> broken;
};

TEST_F(Repair, ShowsItsPlanKeepsACopyAndMendsTheArea) {
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--force", "--backup", backup});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    const auto lines = lines_of(outcome.output);
    ASSERT_EQ(lines.size(), 2U) << outcome.output;
    EXPECT_EQ(lines[0],
              "offset    12848  04000000 -> 02000000  chunk 3: prev becomes 2, the element before");
    EXPECT_EQ(lines[1], "repaired; " + backup + " holds the area as it was");
    EXPECT_TRUE(is_sound());
    EXPECT_EQ(area_file(backup).snapshot(), broken);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 0);
}

TEST_F(Repair, OnlyShowsThePlanOfADryRun) {
    const auto outcome = tarvoctl(machine, {"repair", "--dry-run"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(lines_of(outcome.output).size(), 1U);
    EXPECT_TRUE(is_untouched());
}

TEST_F(Repair, ChangesNothingUnlessSomebodySaysYes) {
    const auto outcome = tarvoctl(machine, {"repair", "--force"}, "y\n"); // a pipe is nobody
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "tarvoctl: not repaired: nobody said yes; --yes does\n");
    EXPECT_TRUE(is_untouched());
}

TEST_F(Repair, RefusesWhileTheLibraryIsStartedSomewhere) {
    client user = machine.start();
    user.limits();
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.errors.find(std::to_string(user.pid()) + " (tarvo-client)"),
              std::string::npos)
        << outcome.errors;
    EXPECT_TRUE(is_untouched());
    EXPECT_EQ(tarvoctl(machine, {"repair", "--yes", "--force", "--backup", backup}).status, 0);
    EXPECT_TRUE(is_sound());
}

TEST_F(Repair, RefusesWhileSomethingIsLeftToAPerson) {
    // Whose end the region's is can no longer be told.
    machine.writable_area().writer().text(area_offset::chunk(1) + area_offset::name, "tail");
    const auto before = machine.area().snapshot();
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
    EXPECT_EQ(outcome.status, 4) << outcome.output << outcome.errors;
    EXPECT_EQ(machine.area().snapshot(), before);
}

TEST_F(Repair, NeedsNothingOfASoundArea) {
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 2);
    const auto outcome = tarvoctl(machine, {"repair"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "nothing to repair\n");
}

TEST_F(Repair, MendsACopyWhateverIsRunning) {
    const std::string copy = folder.path() / "copy";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", copy}).status, 0);
    client user = machine.start();
    user.limits();
    EXPECT_EQ(tarvoctl(machine, {"repair", copy, "--yes", "--backup", backup}).status, 0);
    EXPECT_EQ(area_file(copy).snapshot(), sound);
    EXPECT_TRUE(is_untouched());
}

TEST_F(Repair, GivesUpWhereTheBackupCannotBeWritten) {
    const auto outcome =
        tarvoctl(machine, {"repair", "--yes", "--force", "--backup", "/nowhere/backup"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors,
              "tarvoctl: cannot write /nowhere/backup: No such file or directory\n");
    EXPECT_TRUE(is_untouched());
}

} // namespace
