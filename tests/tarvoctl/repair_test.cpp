#include "terminal.hpp"

#include <filesystem>
#include <gtest/gtest.h>

namespace repair_test {

namespace {

/// Three chunks, elements 2 to 4, made by a process that has ended. The second one's back link
/// points where it should not.
class repair : public testing::Test {
  protected:
    repair() {
        {
            const client driver =
                machine.start({"alloc first 1 test", "alloc second 1 test", "alloc third 1 test"});
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

TEST_F(repair, ShowsItsPlanKeepsACopyAndRepairsTheArea) {
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    const auto lines = lines_of(outcome.output);
    ASSERT_EQ(lines.size(), 2U) << outcome.output;
    EXPECT_EQ(lines[0], "offset    12848  04000000 -> 02000000  chunk 3 'second' (creator test): "
                        "prev becomes 2, the element before");
    EXPECT_EQ(lines[1], "repaired; " + backup + " holds the area as it was");
    EXPECT_TRUE(is_sound());
    EXPECT_EQ(area_file(backup).snapshot(), broken);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 0);
}

TEST_F(repair, SaysInJsonWhatItChangedAndWhereTheCopyIs) {
    const auto plan = json_of(tarvoctl(machine, {"repair", "--dry-run", "--json"}));
    EXPECT_EQ(plan.at("repaired"), false);
    EXPECT_EQ(plan.at("backup"), nullptr);
    EXPECT_TRUE(is_untouched());
    const auto done = json_of(tarvoctl(machine, {"repair", "--yes", "--backup", backup, "--json"}));
    EXPECT_EQ(done.at("repaired"), true);
    EXPECT_EQ(done.at("backup"), backup);
    EXPECT_EQ(done.at("edits"), plan.at("edits"));
    ASSERT_EQ(done.at("edits").size(), 1U);
    const auto& edit = done.at("edits")[0];
    EXPECT_EQ(edit.at("offset"), 12848);
    EXPECT_EQ(edit.at("before"), "04000000");
    EXPECT_EQ(edit.at("after"), "02000000");
    EXPECT_EQ(edit.at("chunk").at("name"), "second");
    EXPECT_TRUE(is_sound());
}

TEST_F(repair, OnlyShowsThePlanOfADryRun) {
    const auto outcome = tarvoctl(machine, {"repair", "--dry-run"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(lines_of(outcome.output).size(), 1U);
    EXPECT_TRUE(is_untouched());
}

TEST_F(repair, ChangesNothingUnlessSomebodySaysYes) {
    const auto outcome = tarvoctl(machine, {"repair"}, "y\n"); // a pipe is nobody
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(own_errors(outcome), "tarvoctl: not repaired: nobody said yes; --yes does\n");
    EXPECT_TRUE(is_untouched());
}

TEST_F(repair, RefusesWhileTheLibraryIsStartedSomewhere) {
    client user = machine.start({"limits"});
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.errors, std::to_string(user.pid()) + " (tarvo-client)"));
    EXPECT_TRUE(is_untouched());
    EXPECT_EQ(tarvoctl(machine, {"repair", "--yes", "--force", "--backup", backup}).status, 0);
    EXPECT_TRUE(is_sound());
}

TEST_F(repair, RefusesWhileSomethingIsLeftToAPerson) {
    // Nothing shows any more where the region ends.
    machine.writable_area().writer().text(area_offset::chunk(1) + area_offset::name, "tail");
    const auto before = machine.area().snapshot();
    EXPECT_TRUE(ended(tarvoctl(machine, {"repair", "--yes", "--backup", backup}), 4));
    EXPECT_EQ(machine.area().snapshot(), before);
    EXPECT_FALSE(std::filesystem::exists(backup));
}

TEST_F(repair, IsPartlyDoneWhenAskedForAlone) {
    machine.start().register_device(0, 3, 0);
    const auto area = machine.writable_area();
    area.writer().text(area_offset::chunk(1) + area_offset::name, "tail"); // for a person
    const int device = area.view().device_ends().head;
    area.writer().i32(area_offset::device(device) + area_offset::prev, 77); // can be repaired
    const auto before = machine.area().snapshot();
    const auto refused = tarvoctl(machine, {"repair", "--yes", "--force", "--backup", backup});
    EXPECT_EQ(refused.status, 4) << refused.output << refused.errors;
    EXPECT_TRUE(contains(refused.errors, "a person has to decide first about 1 place,"));
    EXPECT_EQ(machine.area().snapshot(), before);
    const auto partly =
        tarvoctl(machine, {"repair", "--yes", "--force", "--partly", "--backup", backup});
    ASSERT_EQ(partly.status, 4) << partly.output << partly.errors;
    const auto lines = lines_of(partly.output);
    EXPECT_EQ(lines.at(lines.size() - 2),
              "changed, but still broken; " + backup + " holds the area as it was");
    EXPECT_EQ(lines.back().substr(0, 36), "to get rid of what stays broken, sto");
    EXPECT_NE(machine.area().snapshot(), before);
}

TEST_F(repair, NeedsNothingOfASoundArea) {
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 2);
    EXPECT_EQ(tarvoctl(machine, {"repair"}), printed("nothing to repair\n"));
}

TEST_F(repair, RepairsACopyWhateverIsRunning) {
    const std::string copy = folder.path() / "copy";
    std::filesystem::copy_file(machine.shared_area(), copy);
    const client user = machine.start({"limits"});
    EXPECT_EQ(tarvoctl(machine, {"repair", copy, "--yes", "--backup", backup}).status, 0);
    EXPECT_EQ(area_file(copy).snapshot(), sound);
    EXPECT_TRUE(is_untouched());
}

TEST_F(repair, GivesUpWhereTheBackupCannotBeWritten) {
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", "/nowhere/backup"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(own_errors(outcome),
              "tarvoctl: cannot write /nowhere/backup: No such file or directory\n");
    EXPECT_TRUE(is_untouched());
}

TEST_F(repair, KeepsACopyOfEachOfSeveralRepairsWithinASecond) {
    const std::string copy = folder.path() / "copy";
    std::filesystem::copy_file(machine.shared_area(), copy);
    constexpr int repairs = 5;
    for (int i = 0; i < repairs; ++i) {
        area_file(copy, area_file::access::write)
            .writer()
            .i32(area_offset::chunk(3) + area_offset::prev, 4);
        EXPECT_TRUE(ended(tarvoctl(machine, {"repair", copy, "--yes"}), 0));
    }
    const std::filesystem::directory_iterator all(folder.path());
    EXPECT_EQ(std::distance(begin(all), end(all)), repairs + 1);
}

TEST_F(repair, NamesTheWayOutOfABackupThatIsThere) {
    ASSERT_EQ(tarvoctl(machine, {"snapshot", backup}).status, 0);
    const auto outcome = tarvoctl(machine, {"repair", "--yes", "--backup", backup});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(own_errors(outcome),
              "tarvoctl: cannot write " + backup + ": File exists; --backup names another\n");
    EXPECT_TRUE(is_untouched());
}

/// Of chunks that a device sees.
constexpr const char* free_it =
    "stop or reset the devices first (or restart the machine), because they may still see the "
    "memory; then free the chunk with 'tarvoctl free' and allocate it again";
constexpr const char* remove_it =
    "stop or reset the devices first (or restart the machine), because they may still see the "
    "memory; then end all programs that use it, then remove its file";

/// A record that says what it cannot: no link is wrong.
class record_of : public testing::Test {
  protected:
    static size_t at(int chunk, size_t field) { return area_offset::chunk(chunk) + field; }

    /// Repair changes nothing and says what stays broken, and check sends to what helps.
    void expect_broken(const std::string& what, const std::string& remedy) {
        const auto before = machine.area().snapshot();
        EXPECT_EQ(tarvoctl(machine, {"repair", "--yes", "--force"}),
                  (tool_outcome{4,
                                "stays broken: " + what +
                                    "\nrepair has nothing to change\n"
                                    "to get rid of what stays broken, " +
                                    remedy + "\n",
                                ""}));
        EXPECT_EQ(machine.area().snapshot(), before);
        const auto check = tarvoctl(machine, {"check"});
        EXPECT_EQ(check.status, 4);
        EXPECT_EQ(lines_of(check.output).back(), "the area is broken: " + remedy);
        EXPECT_TRUE(contains(check.output, "broken     " + what + "\n"));
    }

    /// Freeing the chunk helps, and so does allocating it again.
    void expect_free_to_help(const std::string& name) {
        EXPECT_TRUE(ended(tarvoctl(machine, {"free", name, "--force"}), 0));
        EXPECT_EQ(tarvoctl(machine, {"alloc", name, "4K"}).status, 0);
        EXPECT_EQ(tarvoctl(machine, {"check"}).status, 0);
    }

    sandbox machine{low};
    client driver = machine.start(
        {"alloc first 1 test", "alloc second 1 test", "alloc third 1 test", "register 0 3 0"});
    area_file area = machine.writable_area();
    area_writer write = area.writer();
};

TEST_F(record_of, AChunkOfPartOfAPageIsFreed) {
    write.u32(at(4, area_offset::size), 0x800);
    expect_broken("chunk 4 'third' (creator test): size 2 KiB is not whole pages of 4 KiB "
                  "[chunk-size-not-pages]",
                  free_it);
    expect_free_to_help("third");
}

TEST_F(record_of, OneOfTwoChunksThatOverlapIsFreed) {
    write.u32(at(2, area_offset::size), 0x2000);
    expect_broken("chunk 3 'second' (creator test): begins at 0x0080001000, but chunk 2 'first' "
                  "reaches to 0x0080002000 [chunk-overlap]",
                  free_it);
    expect_free_to_help("first");
}

TEST_F(record_of, AChunkWithoutANameCostsTheArea) {
    write.u8(at(3, area_offset::name), 0);
    expect_broken(
        "chunk 3 (creator test): no name: it can be neither found nor freed [chunk-name-empty]",
        remove_it);
    driver.finish();
    std::filesystem::remove(machine.shared_area());
    EXPECT_EQ(tarvoctl(machine, {"alloc", "second", "4K"}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 0);
}

/// Freeing it would end the library's process where a device sees it.
TEST_F(record_of, AChunkOutsideTheRegionCostsTheArea) {
    write.u64(at(4, area_offset::pa), low.end() + 0x1000);
    const auto repair = tarvoctl(machine, {"repair"});
    EXPECT_EQ(repair.status, 4);
    EXPECT_TRUE(contains(repair.output, "stays broken: chunk 4 'third' (creator test): 4 KiB from "
                                        "0x0090001000 does not lie in the region"));
    EXPECT_TRUE(
        contains(repair.output, std::string("to get rid of what stays broken, ") + remove_it));
    const auto check = tarvoctl(machine, {"check"});
    EXPECT_EQ(lines_of(check.output).back(), std::string("the area is broken: ") + remove_it);
    EXPECT_EQ(tarvoctl(machine, {"free", "third", "--force"}).status, 4);
}

TEST_F(record_of, ADeviceThatIsThereTwiceIsUnregistered) {
    machine.start().register_device(0, 4, 0);
    write.i32(area_offset::device(1) + area_offset::bus, 3);
    expect_broken(
        "device 1 (0000:03:00.0): the same domain, bus and devfn as device 0 (0000:03:00.0), which "
        "is the one that calls find [device-address-twice]",
        "stop or reset the devices first (or restart the machine), because they may still see the "
        "memory; then unregister the device with 'tarvoctl unregister' and register it again");
    EXPECT_EQ(tarvoctl(machine, {"unregister", "03:00.0", "--force"}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"register", "03:00.0"}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 0);
}

TEST_F(record_of, AChunkThatDevicesSeeIsNotGivenBackForItsSize) {
    write.u32(at(3, area_offset::size), 0);
    const auto before = machine.area().snapshot();
    const auto repair = tarvoctl(machine, {"repair", "--yes", "--force"});
    EXPECT_EQ(repair.status, 4);
    EXPECT_EQ(lines_of(repair.output).front(),
              "left as it is: chunk 3 'second' (creator test): its size is 0, yet it is mapped for "
              "devices: the size is lost");
    EXPECT_EQ(machine.area().snapshot(), before);
    // No driver unmaps a range that ends before it starts; the library forgets the mapping then.
    EXPECT_EQ(tarvoctl(machine, {"free", "second", "--force"}).status, 1);
    expect_free_to_help("second");
}

TEST_F(record_of, WhatStaysBrokenIsReportedBesidesWhatIsRepaired) {
    write.u32(at(4, area_offset::size), 0x800);
    write.i32(at(3, area_offset::prev), 4);
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check"}).output).back(),
              "the area is broken: 'tarvoctl repair' shows what can be done");
    EXPECT_EQ(tarvoctl(machine, {"repair", "--dry-run"}).status, 4);
    const auto repair = tarvoctl(machine, {"repair", "--yes", "--force"});
    EXPECT_EQ(repair.status, 4);
    const auto lines = lines_of(repair.output);
    ASSERT_EQ(lines.size(), 4U) << repair.output;
    EXPECT_EQ(lines[1].substr(0, 30), "stays broken: chunk 4 'third' ");
    EXPECT_EQ(lines[2].substr(0, 27), "changed, but still broken; ");
    EXPECT_EQ(lines[3], std::string("to get rid of what stays broken, ") + free_it);
    expect_free_to_help("third");
}

TEST_F(record_of, AChunkThatNoDeviceSeesIsFreedAtOnce) {
    driver.unregister_device(0, 3, 0);
    write.u32(at(4, area_offset::size), 0x800);
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check"}).output).back(),
              "the area is broken: free the chunk with 'tarvoctl free' and allocate it again");
    expect_free_to_help("third");
}

TEST_F(record_of, AChunkMovedOutOfTheRegionStaysBrokenWhenTheListIsRepaired) {
    write.u64(at(4, area_offset::pa), 0x10000);
    const auto repair = tarvoctl(machine, {"repair", "-y", "--force"});
    EXPECT_EQ(repair.status, 4);
    EXPECT_FALSE(contains(repair.output, "repaired"));
    EXPECT_TRUE(contains(repair.output, "\nchanged, but still broken; "));
    EXPECT_EQ(lines_of(repair.output).back(),
              std::string("to get rid of what stays broken, ") + remove_it);
}

TEST_F(record_of, OfACopyOverlapsAreInOrderUnderCma) {
    write.u32(at(2, area_offset::size), 0x2000);
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    std::filesystem::copy_file(machine.shared_area(), copy);
    EXPECT_EQ(tarvoctl(machine, {"repair", copy}).status, 4);
    EXPECT_EQ(tarvoctl(machine, {"repair", "--cma", copy}).output, "nothing to repair\n");
}

TEST_F(record_of, ThereIsNoRoomForTheCopyBesideTheArea) {
    write.i32(at(3, area_offset::prev), 4);
    const auto before = machine.area().snapshot();
    // The mount has room for the area alone.
    const auto repair = run_program(
        machine, {"sh", "-c",
                  "cp -a /var/shmem/tarvo_lib /var/tmp/kept && "
                  "mount -t tmpfs -o size=68m,mode=0755 tmpfs /var/shmem && cp -a /var/tmp/kept "
                  "/var/shmem/tarvo_lib && \"$0\" repair --yes --force; echo $?; \"$0\" repair "
                  "--yes --force --backup /var/tmp/backup >/dev/null; echo $?; ls -A /var/shmem",
                  TARVOCTL});
    EXPECT_TRUE(
        contains(repair.errors, ": No space left on device: the copy takes 65544 KiB, and "));
    EXPECT_TRUE(ends_with(own_errors(repair),
                          " KiB are free there; --backup FILE puts it where there is room\n"))
        << repair.errors;
    EXPECT_TRUE(ends_with(repair.output, "\n3\n0\ntarvo_lib\n"));
    EXPECT_EQ(machine.area().snapshot(), before);
}

/// A person at a terminal who is asked before the area is repaired.
class repair_at_a_terminal : public repair {
  protected:
    repair_at_a_terminal() { screen.output_with("the element before"); }

    terminal screen{24, 200};
    running_tool tool = screen.start(machine, {"repair", "--force", "--backup", backup});
};

TEST_F(repair_at_a_terminal, HoldsNobodyUpThatIsSlowToReadOfIt) {
    screen.stop_output();
    screen.type("y\n");
    EXPECT_TRUE(eventually([&] { return is_sound(); }));
    EXPECT_TRUE(eventually([&] { return lock_is_free(machine.lock_file()); }));
    screen.go_on();
    screen.output_with("repaired; ");
    EXPECT_EQ(tool.program.wait(), normal_end);
}

TEST_F(repair_at_a_terminal, LeavesAnAreaAloneThatHasChangedSinceThePlan) {
    // Far from all that is to be repaired, but the copy that is kept would not have it.
    machine.writable_area().writer().text(area_offset::chunk(2) + area_offset::creator, "other");
    const auto changed = machine.area().snapshot();
    screen.type("y\n");
    EXPECT_EQ(tool.program.wait().status, 1);
    EXPECT_EQ(own_errors({1, "", tool.program.error_text()}).find("not repaired: the area has"),
              std::string("make 1 change? [y/N] tarvoctl: ").size());
    EXPECT_EQ(machine.area().snapshot(), changed);
    EXPECT_FALSE(std::filesystem::exists(backup));
}

} // namespace

} // namespace repair_test
