#include "tool.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace check_test {

namespace {

/// Three chunks, elements 2 to 4.
void fill(sandbox& machine) {
    const client driver =
        machine.start({"alloc first 1 test", "alloc second 1 test", "alloc third 1 test"});
}

class check : public testing::Test {
  protected:
    check() { fill(machine); }

    sandbox machine{low};
    temporary_folder folder;
    const std::string copy = folder.path() / "copy";
};

/// The same with a snapshot of it.
class snapshot : public check {
  protected:
    snapshot() { EXPECT_EQ(tarvoctl(machine, {"snapshot", copy}).status, 0); }
};

TEST(check_world, ASoundAreaIsSound) {
    for (const world& each : all_worlds()) {
        sandbox machine(each);
        fill(machine);
        machine.start().register_device(0, 3, 0);
        EXPECT_EQ(tarvoctl(machine, {"check"}), printed("the area is sound\n")) << each.name;
    }
}

TEST_F(check, ALostElementIsAFinding) {
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

TEST_F(check, ABrokenLinkIsDamage) {
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 4);
    const auto outcome = tarvoctl(machine, {"check"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(lines_of(outcome.output).back(),
              "the area is broken: 'tarvoctl repair' shows what can be done");
    EXPECT_EQ(json_of(tarvoctl(machine, {"check", "--json"})).at("verdict"), "broken");
}

TEST_F(check, SendsToTheRepairOfTheCopyThatItChecked) {
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 4);
    std::filesystem::copy_file(machine.shared_area(), copy);
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check", copy}).output).back(),
              "the area is broken: 'tarvoctl repair " + copy + "' shows what can be done");
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check", "--cma", copy}).output).back(),
              "the area is broken: 'tarvoctl repair --cma " + copy + "' shows what can be done");
}

TEST_F(check, ComparesTheAreaWithTheRegionTheDriverDescribes) {
    auto area = machine.writable_area();
    const auto tail = static_cast<size_t>(area.view().chunk_ends().tail);
    area.writer().u64(area_offset::chunk(static_cast<int>(tail)) + area_offset::pa,
                      low.end() - 0x1000);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 4);
    // A copy may come from another machine.
    EXPECT_EQ(tarvoctl(machine, {"snapshot", copy}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check", copy}).status, 0);
}

TEST_F(check, SaysWhatIsNoArea) {
    const std::string file = folder.path() / "short";
    std::ofstream(file) << "short";
    EXPECT_EQ(tarvoctl(machine, {"check", file}),
              failed(4, file + " is 5 bytes, an area takes 70130716 bytes: it is not a copy of an "
                               "area, or an incomplete one; 'tarvoctl snapshot' makes one"));
    EXPECT_EQ(tarvoctl(machine, {"check", "/nowhere"}), failed(3, "/nowhere does not exist"));
}

TEST_F(check, WaitsForNobodyAtAFifo) {
    const std::string fifo = folder.path() / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<arguments> commands{
        {"check", fifo}, {"list", "--area", fifo}, {"diff", fifo}};
    for (const auto& words : commands) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 4);
        EXPECT_TRUE(
            starts_with(outcome.errors, "tarvoctl: " + fifo + " is 0 bytes, an area takes "));
    }
    EXPECT_EQ(tarvoctl(machine, {"repair", fifo}), failed(3, fifo + " is not a regular file"));
    const auto of_folder = tarvoctl(machine, {"check", folder.path()});
    EXPECT_EQ(of_folder.errors, "tarvoctl: " + folder.path().string() + " is not a regular file\n");

    std::filesystem::remove(machine.lock_file());
    ASSERT_EQ(mkfifo(machine.lock_file().c_str(), 0600), 0);
    for (const auto& words : {arguments{"check"}, {"alloc", "fourth", "4K"}}) {
        EXPECT_EQ(tarvoctl(machine, words),
                  failed(3, "/var/lock/subsys/tarvo_lock is not a regular file"));
    }
}

TEST_F(check, TakesNoMemoryForTheHolesOfACopy) {
    const std::string sparse = "/dev/shm/tarvoctl-check-" + std::to_string(getpid());
    std::ofstream{sparse};
    std::filesystem::resize_file(sparse, 70131712);
    EXPECT_NE(tarvoctl(machine, {"check", sparse}).output, "");
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", sparse}).status, 3);
    struct stat found {};
    EXPECT_EQ(stat(sparse.c_str(), &found), 0);
    EXPECT_EQ(found.st_blocks, 0);
    std::filesystem::remove(sparse);
}

TEST_F(check, AnEmptyFileIsTheLiveAreaAtItsVeryBeginning) {
    std::filesystem::resize_file(machine.shared_area(), 0);
    for (const char* command : {"check", "list"}) {
        EXPECT_EQ(
            tarvoctl(machine, {command}),
            failed(
                3,
                "/var/shmem/tarvo_lib is not built yet: no program has started the library on it"));
    }
    std::filesystem::resize_file(machine.shared_area(), 100);
    EXPECT_EQ(tarvoctl(machine, {"list"}).status, 4);
}

TEST_F(check, TellsWhoMayNotLookThatRootMay) {
    std::filesystem::permissions(machine.shared_area(), std::filesystem::perms::none);
    const auto outcome = tarvoctl_of_stranger(machine, {"list"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors,
              "tarvoctl: cannot open /var/shmem/tarvo_lib: Permission denied; run it as root\n");
}

TEST(check_world, SaysWhyThereCanBeNoArea) {
    sandbox machine(low, {"--without", "proc"});
    EXPECT_EQ(tarvoctl(machine, {"list"}),
              failed(3, "there is no region: /proc/tarvo is missing or does not describe one, and "
                        "SIMULATION_VMID is not set and /var/tmp/tarvo does not exist. Load the "
                        "kernel driver, or run with SIMULATION_VMID set"));
}

TEST(snapshot_world, IsAConsistentCopyThatAllCommandsRead) {
    sandbox machine(high);
    fill(machine);
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    EXPECT_EQ(
        tarvoctl(machine, {"snapshot", copy}),
        printed(copy +
                " holds the area as it was; 'tarvoctl list --area', 'check' and 'diff' read it\n"));
    EXPECT_EQ(unpacked(copy), machine.area().snapshot());
    EXPECT_EQ(mode_of(copy), "0600");
    machine.start().free("second");
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", copy, "-o", "name", "--no-header"}).output,
              "first\nsecond\nthird\n");
}

TEST_F(snapshot, IsCompactAndReadCompressedOrNot) {
    EXPECT_LT(std::filesystem::file_size(copy), 1'000'000);
    const std::string plain = folder.path() / "plain";
    ASSERT_EQ(run_program(machine, {"sh", "-c", "zcat \"$0\" >\"$1\"", copy, plain}).status, 0);
    for (const arguments& words : std::vector<arguments>{
             {"list", "--area"}, {"check"}, {"map", "--area"}, {"limits", "--area"}, {"diff"}}) {
        EXPECT_EQ(tarvoctl(machine, words + arguments{copy}),
                  printed(tarvoctl(machine, words + arguments{plain}).output))
            << words.front();
    }
}

TEST_F(snapshot, GoesThroughPipes) {
    const auto piped = [this](const char* script) {
        return run_program(machine, {"sh", "-c", script, TARVOCTL});
    };
    const auto list = piped("\"$0\" snapshot - | \"$0\" list --area - -o name --no-header");
    EXPECT_EQ(list.status, 0) << list.errors;
    EXPECT_EQ(list.output, "first\nsecond\nthird\n");
    EXPECT_EQ(piped("\"$0\" snapshot - | zcat | \"$0\" diff -").output, "");
    EXPECT_EQ(piped("\"$0\" snapshot - | zcat | \"$0\" check -").status, 0);
    const auto both = tarvoctl(machine, {"snapshot", "-", "--json"});
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.errors, "tarvoctl: standard output takes the snapshot or the JSON document, not "
                           "both; name a file\n");
    const auto empty = tarvoctl(machine, {"list", "--area", "-"});
    EXPECT_EQ(empty.status, 4);
    EXPECT_TRUE(starts_with(empty.errors, "tarvoctl: standard input is 0 bytes, an area takes "));
}

TEST_F(snapshot, ThatIsDamagedOrNoneIsNotTakenForAnArea) {
    const std::string bytes = file_text(copy);
    const auto listed = [&](const std::string& changed) {
        std::ofstream(copy, std::ios::binary) << changed;
        return tarvoctl(machine, {"list", "--area", copy});
    };
    const auto cut = listed(bytes.substr(0, bytes.size() / 2));
    EXPECT_EQ(cut.status, 4); // as of a copy that is not compressed
    EXPECT_EQ(cut.errors, "tarvoctl: cannot read " + copy + ": it is compressed, and cut short\n");
    std::string other = bytes;
    other[bytes.size() - 6] ^= 1; // in the sum of all bytes
    const auto damaged = listed(other);
    EXPECT_EQ(damaged.status, 4);
    EXPECT_EQ(damaged.errors,
              "tarvoctl: cannot read " + copy + ": it is compressed, and damaged\n");
    ASSERT_EQ(run_program(machine, {"sh", "-c", "echo short | gzip >\"$0\"", copy}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", copy}).status, 4);
}

TEST_F(snapshot, MoreThanAnAreaIsNotInflated) {
    // Zeros without end: a tool that took them all would never answer.
    const auto outcome =
        run_program(machine, {"sh", "-c", "gzip -1 </dev/zero | \"$0\" list --area -", TARVOCTL});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_TRUE(contains(outcome.errors, "is not built yet"));
}

TEST_F(snapshot, IsReadThroughAPipeWithAName) {
    const auto direct = tarvoctl(machine, {"list", "--area", copy});
    for (const char* reader : {"cat", "zcat"}) {
        const auto piped = run_program(
            machine, {"bash", "-c", "\"$0\" list --area <(\"$1\" \"$2\")", TARVOCTL, reader, copy});
        EXPECT_EQ(piped.status, 0) << piped.errors;
        EXPECT_EQ(piped.output, direct.output);
    }
}

TEST_F(snapshot, OfStandardInputIsNotReadTwice) {
    EXPECT_EQ(tarvoctl(machine, {"diff", "-", "-"}),
              failed(2, "standard input can be read once; name a file for one of the two"));
}

TEST_F(snapshot, CannotBeRepairedWhileItIsCompressed) {
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 9);
    EXPECT_EQ(tarvoctl(machine, {"snapshot", "--force", copy}).status, 0);
    const std::string bytes = file_text(copy);
    for (const char* how : {"-n", "-y"}) {
        EXPECT_EQ(tarvoctl(machine, {"repair", how, copy}),
                  failed(2, copy + " is compressed, and cannot be changed as it is; 'zcat <" +
                                copy + "' gives the bytes for a file that can"));
        EXPECT_EQ(tarvoctl(machine, {"repair", how, "-"}, bytes),
                  failed(2, "standard input cannot be changed; name a file to repair"));
    }
    EXPECT_EQ(file_text(copy), bytes);
}

TEST_F(snapshot, NeverReplacesAFileUnasked) {
    std::ofstream(copy) << "precious";
    EXPECT_EQ(tarvoctl(machine, {"snapshot", copy}),
              failed(2, "cannot write " + copy +
                            ": File exists; name another file, or --force replaces it"));
    EXPECT_EQ(file_text(copy), "precious");
    EXPECT_EQ(tarvoctl(machine, {"snapshot", "--force", copy}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check", copy}).status, 0);
}

/// A snapshot that is in the way, and the only file in its folder.
class snapshot_onto : public snapshot {
  protected:
    snapshot_onto() { machine.start().free("second"); }

    std::ptrdiff_t files() const {
        const std::filesystem::directory_iterator all(folder.path());
        return std::distance(begin(all), end(all));
    }

    const std::vector<uint8_t> bytes = unpacked(copy);
};

TEST_F(snapshot_onto, AFullDiskKeepsTheEarlierOne) {
    // As much of a file as a full disk would take.
    process tool = machine.start_process(
        {"sh", "-c", "trap '' XFSZ; ulimit -f 100; exec \"$0\" snapshot --force \"$1\"", TARVOCTL,
         copy});
    EXPECT_EQ(tool.wait().status, 3);
    EXPECT_EQ(tool.error_text(), "tarvoctl: cannot write " + copy + ": File too large\n");
    EXPECT_EQ(unpacked(copy), bytes);
    EXPECT_EQ(files(), 1);
}

TEST_F(snapshot_onto, AToolThatIsKilledWhileItWritesLeavesNothing) {
    // By the signal that a file of that length brings.
    process tool = machine.start_process(
        {"sh", "-c", "ulimit -c 0; ulimit -f 100; exec \"$0\" snapshot --force \"$1\"", TARVOCTL,
         copy});
    EXPECT_NE(tool.wait(), normal_end);
    EXPECT_EQ(tool.error_text(), "");
    EXPECT_EQ(unpacked(copy), bytes);
    EXPECT_EQ(files(), 1);
}

TEST_F(snapshot_onto, ANewOneLeavesNothingElse) {
    EXPECT_EQ(tarvoctl(machine, {"snapshot", "--force", copy}).status, 0);
    EXPECT_EQ(unpacked(copy), machine.area().snapshot());
    EXPECT_EQ(files(), 1);
}

TEST_F(snapshot_onto, WhatHasTheAreaMappedKeepsItsFile) {
    const std::string link = folder.path() / "link";
    std::filesystem::create_symlink("/var/shmem/tarvo_lib", link);
    const auto before = machine.area().snapshot();
    for (const std::string& file : {std::string("/var/shmem/tarvo_lib"), link}) {
        EXPECT_EQ(
            tarvoctl(machine, {"snapshot", "--force", file}),
            failed(2, "cannot write " + file + ": that is a file of the library; name another"));
    }
    EXPECT_EQ(machine.area().snapshot(), before);
    // One that does not exist would select simulation.
    EXPECT_EQ(tarvoctl(machine, {"snapshot", "/var/tmp/../tmp/tarvo"}).status, 2);
    EXPECT_EQ(tarvoctl(machine, {"list"}).status, 0);
}

TEST_F(snapshot_onto, WhatIsNoPlainFileStays) {
    for (const std::string& file : {std::string("/dev/full"), folder.path().string()}) {
        for (const arguments& words :
             std::vector<arguments>{{"snapshot", file}, {"snapshot", "--force", file}}) {
            EXPECT_EQ(
                tarvoctl(machine, words),
                failed(2, "cannot write " + file + ": it is not a regular file; name another"));
        }
    }
}

TEST(diff, TellsWhatChangedSinceASnapshot) {
    sandbox machine(low);
    fill(machine);
    const taken_snapshot before(machine);
    EXPECT_EQ(tarvoctl(machine, {"diff", before.path}), printed(""));

    client driver = machine.start({"free second", "register 0 3 0"});
    const auto since = tarvoctl(machine, {"diff", before.path, "--json"});
    EXPECT_EQ(since.status, 1);
    std::vector<std::string> words;
    const auto document = json_of(since);
    for (const auto& each : document.at("changes")) {
        words.push_back(each.at("change"));
    }
    EXPECT_EQ(words, (std::vector<std::string>{"freed", "registered", "mapped", "mapped"}));

    const std::string after = before.folder.path() / "after";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", after}).status, 0);
    driver.free("first");
    const auto between = tarvoctl(machine, {"diff", before.path, after});
    EXPECT_EQ(between.status, 1);
    EXPECT_EQ(lines_of(between.output).size(), 4U);
    EXPECT_EQ(tarvoctl(machine, {"diff", after, after}).status, 0);
}

TEST(diff, ComplainsFirstOfTheFileThatWasNamed) {
    sandbox machine(simulation);
    EXPECT_EQ(tarvoctl(machine, {"diff", "/nowhere"}), failed(3, "/nowhere does not exist"));
}

} // namespace

} // namespace check_test
