#include "terminal.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

namespace {

/// Three chunks, elements 2 to 4, made by a process that has ended. The second one's back link
/// points where it should not.
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
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
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
    const auto outcome = tarvoctl(machine, {"repair"}, "y\n"); // a pipe is nobody
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(own_errors(outcome), "tarvoctl: not repaired: nobody said yes; --yes does\n");
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
    EXPECT_FALSE(std::filesystem::exists(backup));
}

TEST_F(Repair, IsPartlyDoneWhenAskedForAlone) {
    machine.start().register_device(0, 3, 0);
    const auto area = machine.writable_area();
    area.writer().text(area_offset::chunk(1) + area_offset::name, "tail"); // for a person
    const int device = area.view().device_ends().head;
    area.writer().i32(area_offset::device(device) + area_offset::prev, 77); // can be mended
    const auto before = machine.area().snapshot();
    const auto refused = tarvoctl(machine, {"repair", "--yes", "--force", "--backup", backup});
    EXPECT_EQ(refused.status, 4) << refused.output << refused.errors;
    EXPECT_NE(refused.errors.find("decided by a person first"), std::string::npos);
    EXPECT_EQ(machine.area().snapshot(), before);
    const auto partly =
        tarvoctl(machine, {"repair", "--yes", "--force", "--partly", "--backup", backup});
    ASSERT_EQ(partly.status, 4) << partly.output << partly.errors;
    EXPECT_EQ(lines_of(partly.output).back(), "repaired; " + backup + " holds the area as it was");
    EXPECT_NE(machine.area().snapshot(), before);
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
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", "/nowhere/backup"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(own_errors(outcome),
              "tarvoctl: cannot write /nowhere/backup: No such file or directory\n");
    EXPECT_TRUE(is_untouched());
}

TEST_F(Repair, KeepsACopyOfEachOfSeveralRepairsWithinASecond) {
    const std::string copy = folder.path() / "copy";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", copy}).status, 0);
    constexpr int repairs = 5;
    for (int i = 0; i < repairs; ++i) {
        area_file(copy, area_file::access::write)
            .writer()
            .i32(area_offset::chunk(3) + area_offset::prev, 4);
        const auto outcome = tarvoctl(machine, {"repair", copy, "--yes"});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
    }
    const std::filesystem::directory_iterator all(folder.path());
    EXPECT_EQ(std::distance(begin(all), end(all)), repairs + 1);
}

TEST_F(Repair, NamesTheWayOutOfABackupThatIsThere) {
    ASSERT_EQ(tarvoctl(machine, {"snapshot", backup}).status, 0);
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(own_errors(outcome),
              "tarvoctl: cannot write " + backup + ": File exists; --backup names another\n");
    EXPECT_TRUE(is_untouched());
}

/// A person at a terminal who is asked before the area is mended.
class RepairAtATerminal : public Repair {
  protected:
    RepairAtATerminal() { screen.output_with("the element before"); }

    template <typename Condition>
    static bool comes_true(Condition condition) {
        using clock = std::chrono::steady_clock;
        for (const auto last = clock::now() + std::chrono::seconds{20}; clock::now() < last;) {
            if (condition())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds{10});
        }
        return false;
    }

    terminal screen{24, 200};
    running_tool tool = screen.start(machine, {"repair", "--force", "--backup", backup});
};

TEST_F(RepairAtATerminal, HoldsNobodyUpThatIsSlowToReadOfIt) {
    screen.stop_output();
    screen.type("y\n");
    EXPECT_TRUE(comes_true([&] { return is_sound(); }));
    EXPECT_TRUE(comes_true([&] { return lock_is_free(machine.lock_file()); }));
    screen.go_on();
    screen.output_with("repaired; ");
    EXPECT_EQ(tool.program.wait(), normal_end);
}

TEST_F(RepairAtATerminal, LeavesAnAreaAloneThatHasChangedSinceThePlan) {
    // Far from all that is to be mended, but the copy that is kept would not have it.
    machine.writable_area().writer().text(area_offset::chunk(2) + area_offset::creator, "other");
    const auto changed = machine.area().snapshot();
    screen.type("y\n");
    EXPECT_EQ(tool.program.wait().status, 1);
    EXPECT_EQ(own_errors({1, "", tool.program.error_text()}).find("not repaired: the area has"),
              std::string("make these 1 change(s)? [y/N] tarvoctl: ").size());
    EXPECT_EQ(machine.area().snapshot(), changed);
    EXPECT_FALSE(std::filesystem::exists(backup));
}

} // namespace
