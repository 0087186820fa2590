#include "tool.hpp"

#include <filesystem>
#include <gtest/gtest.h>

namespace room_test {

// Files that are too short, and file systems that are too full, for what the library maps of them.

namespace {

constexpr const char* area = "/var/tmp/tarvo_lib";

/// Runs a command in the sandbox that has to succeed.
void run(sandbox& where, const arguments& words) {
    const auto outcome = run_program(where, words);
    ASSERT_EQ(outcome.status, 0) << words.front() << ": " << outcome.errors;
}

/// A simulation whose files lie on a file system of that size in memory.
class room_of {
  public:
    explicit room_of(const std::string& size) {
        run(machine, {"mount", "-t", "tmpfs", "-o", "mode=1777,size=" + size, "none", "/var/tmp"});
    }

    void shell(const std::string& script) { run(machine, {"sh", "-c", script}); }
    /// Takes so many bytes away, or all there are.
    void fill(const std::string& size) {
        shell("head -c " + size + " /dev/zero >/var/tmp/filler; test -s /var/tmp/filler");
    }
    /// Gives back all blocks of zeros of the area.
    void make_holes() {
        shell("cp --sparse=always /var/tmp/tarvo_lib /var/tmp/copy && "
              "mv /var/tmp/copy /var/tmp/tarvo_lib");
    }

    sandbox machine{simulation};
};

/// All that read the records.
const std::vector<arguments> readers{{"list"},     {"show", "a"},     {"devices"},
                                     {"limits"},   {"who"},           {"map"},
                                     {"leaks"},    {"find", "16384"}, {"translate", "16384"},
                                     {"dump"},     {"check"},         {"top"},
                                     {"watch"},    {"diff", area},    {"snapshot", "/copy"},
                                     {"read", "a"}};

void expect_a_sentence(const tool_outcome& outcome, const std::string& command) {
    EXPECT_GE(outcome.status, 0) << command << " was ended by a signal";
    EXPECT_TRUE(starts_with(outcome.errors, "tarvoctl: ") || !outcome.output.empty())
        << command << " ended with " << outcome.status << " and said nothing";
}

TEST(room, ReadersSurviveAnAreaWhoseFileSystemIsFull) {
    room_of small("8m");
    run(small.machine, {"truncate", "-s", "70131712", area});
    small.fill("9M");
    for (const auto& words : readers) {
        if (words.front() != "watch") { // which waits for the area to be built
            expect_a_sentence(tarvoctl(small.machine, words), words.front());
        }
    }
    EXPECT_EQ(
        tarvoctl(small.machine, {"list"}),
        failed(3, "/var/tmp/tarvo_lib is not built yet: no program has started the library on it"));
}

TEST(room, ReadersSayThatAnAreaIsCutShortAndWhatHelps) {
    sandbox machine(simulation);
    machine.start({"alloc a 4096 me"}).finish();
    std::filesystem::resize_file(machine.shared_area(), 4096);
    for (const auto& words : readers) {
        EXPECT_EQ(
            tarvoctl(machine, words),
            failed(
                4,
                "/var/tmp/tarvo_lib is 4096 bytes, an area takes 70130716 bytes: it was cut short; "
                "stop or reset the devices first (or restart the machine), because they may still "
                "see the memory; then end all programs that use it, then rm /var/tmp/tarvo_lib"))
            << words.front();
    }
}

/// What a command must leave alone, times included.
std::string state_of(sandbox& machine) {
    const auto outcome =
        run_program(machine, {"sh", "-c", "stat -c '%n %s %i %b %y %z' /var/tmp/tarvo*"});
    return outcome.output;
}

void expect_refused_without_a_trace(sandbox& machine, const arguments& words, int status,
                                    const std::string& why) {
    const std::string before = state_of(machine);
    const auto outcome = tarvoctl(machine, words);
    EXPECT_EQ(outcome.status, status) << words.front();
    EXPECT_EQ(outcome.output, "") << words.front();
    EXPECT_TRUE(starts_with(outcome.errors, "tarvoctl: " + why));
    EXPECT_EQ(state_of(machine), before) << words.front();
}

/// All that change the records, and those that read by the library.
const std::vector<arguments> calls{{"alloc", "b", "4K"},
                                   {"free", "a", "--force"},
                                   {"register", "03:00.0"},
                                   {"unregister", "03:00.0", "--force"},
                                   {"iommu-map", "03:00.0"},
                                   {"iommu-unmap", "03:00.0"},
                                   {"fill", "a", "1"},
                                   {"write", "a"},
                                   {"read", "a"},
                                   {"dump"}};

TEST(refused, OnAnAreaThatIsCutShortChangesNoByte) {
    sandbox machine(simulation);
    machine.start({"alloc a 4096 me"}).finish();
    std::filesystem::resize_file(machine.shared_area(), 4096);
    for (const auto& words : calls) {
        expect_refused_without_a_trace(machine, words, 4,
                                       "/var/tmp/tarvo_lib is 4096 bytes, an area takes 70130716");
    }
}

TEST(refused, OnASimulatedMemoryThatIsCutShortChangesNoByte) {
    sandbox machine(simulation);
    machine.start({"alloc a 4096 me"}).finish();
    run(machine, {"truncate", "-s", "4096", "/var/tmp/tarvo"});
    for (const auto& words : calls) {
        expect_refused_without_a_trace(
            machine, words, 4,
            "/var/tmp/tarvo is cut short: 4096 bytes, the region takes 713035776 bytes: ");
    }
}

TEST(refused, ForLackOfRoomInTheRegionChangesNoByteAndMakesNoFile) {
    sandbox machine(simulation);
    const auto before = tarvoctl(machine, {"alloc", "big", "1G"});
    EXPECT_EQ(before.status, 1);
    EXPECT_TRUE(starts_with(before.errors, "tarvoctl: no room for 'big': it takes 1024 MiB, "));
    EXPECT_FALSE(exists(machine.shared_area()));
    machine.start({"alloc a 4096 me"}).finish();
    expect_refused_without_a_trace(machine, {"alloc", "big", "1G"}, 1,
                                   "no room for 'big': it takes 1048576 KiB");
    expect_refused_without_a_trace(machine, {"alloc", "a", "8K"}, 2, "there is a chunk 'a' of ");
}

TEST(refused, OnAMemoryThatIsGoneFromUnderItsChunksMakesNoOther) {
    sandbox machine(simulation);
    machine.start({"alloc a 4096 me"}).finish();
    std::filesystem::remove(machine.memory_file());
    expect_refused_without_a_trace(machine, {"alloc", "b", "4K"}, 4,
                                   "/var/tmp/tarvo is missing, although the bookkeeping lists 1 "
                                   "chunk: what was in the chunks is lost");
}

TEST(refused, WhereTheFolderOfALockOrAnAreaIsMissingOrReadOnlyMakesNothing) {
    const std::vector<arguments> makers{
        {"alloc", "a", "4K"}, {"register", "03:00.0"}, {"iommu-map", "03:00.0"}};
    for (const auto& words : makers) {
        sandbox no_lock(low, {"--without", "lockdir"});
        const auto lock = tarvoctl(no_lock, words);
        EXPECT_EQ(lock.status, 3) << words.front();
        EXPECT_EQ(lock.errors, "tarvoctl: cannot make /var/lock/subsys/tarvo_lock: "
                               "/var/lock/subsys cannot be used: No such file or directory; mkdir "
                               "-p /var/lock/subsys; a tmpfiles.d entry makes it at every start\n");
        EXPECT_FALSE(std::filesystem::exists(no_lock.hardware_area())) << words.front();
        sandbox no_area(low, {"--without", "shmem"});
        const auto folder = tarvoctl(no_area, words);
        EXPECT_EQ(folder.status, 3) << words.front();
        EXPECT_TRUE(starts_with(folder.errors,
                                "tarvoctl: cannot make /var/shmem/tarvo_lib: /var/shmem cannot be "
                                "used: No such file or directory; mkdir -p /var/shmem && mount "));
        sandbox read_only(low);
        run(read_only, {"mount", "-t", "tmpfs", "-o", "ro", "none", "/var/lock/subsys"});
        const auto locked = tarvoctl(read_only, words);
        EXPECT_EQ(locked.status, 3) << words.front();
        EXPECT_TRUE(contains(locked.errors,
                             "takes no new file: Read-only file system; mount -o remount,rw "));
        EXPECT_FALSE(std::filesystem::exists(read_only.hardware_area())) << words.front();
    }
}

/// The fix of what the doctor says of a file, if it says that at all.
std::string fix_for(sandbox& machine, const std::string& path, const std::string& words) {
    const auto document = json_of(tarvoctl(machine, {"doctor", "--json"}));
    for (const auto& each : document.at("checks")) {
        if (each.at("subject") == path && each.at("fix").is_string() &&
            each.at("text").get<std::string>().find(words) != std::string::npos) {
            return each.at("fix");
        }
    }
    return "";
}

TEST(room, DoctorSeesAFolderThatTakesNoNewFile) {
    sandbox machine(low);
    run(machine, {"mount", "-t", "tmpfs", "-o", "ro", "none", "/var/shmem"});
    const std::string fix = fix_for(machine, "/var/shmem", "takes no new file");
    EXPECT_EQ(fix, "mount -o remount,rw /var/shmem");
    run(machine, {"sh", "-c", fix});
    EXPECT_EQ(tarvoctl(machine, {"doctor"}).status, 0);
}

TEST(room, DoctorAsksForWhatTheAreaAndTheMemoryNeedBeforeAProgramEnds) {
    room_of small("8m");
    sandbox& machine = small.machine;
    const auto doctor = tarvoctl(machine, {"doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_TRUE(contains(doctor.output,
                         "ERROR    /var/tmp/tarvo_lib: needs 68488 KiB more, and the file system "
                         "on /var/tmp has 8 MiB left: every program fails to start the library "
                         "('failed to map shared memory'); before Linux 5.14 it ends by SIGBUS\n"));
    EXPECT_TRUE(contains(
        doctor.output, "left: a program that makes a chunk beyond that ends by an assertion, after "
                       "'tarvo_alloc: mmap failed!'; before Linux 5.14 it ends by SIGBUS\n"));
    const std::string fix = fix_for(machine, area, " more");
    EXPECT_EQ(fix, "mount -o remount,size=747m /var/tmp");
    EXPECT_EQ(fix_for(machine, "/var/tmp/tarvo", " more"), fix); // each alone is enough for both
    run(machine, {"sh", "-c", fix});
    EXPECT_TRUE(ended(tarvoctl(machine, {"doctor"}), 0));
    EXPECT_TRUE(ended(tarvoctl(machine, {"alloc", "a", "680M"}), 0));
}

TEST(room, DoctorSaysOfABuiltAreaWithHolesThatItEndsPrograms) {
    room_of small("140m");
    small.machine.start({"alloc a 4096 me"}).finish();
    small.make_holes();
    small.fill("130M");
    const auto doctor = tarvoctl(small.machine, {"doctor"});
    EXPECT_TRUE(contains(doctor.output, "ERROR    /var/tmp/tarvo_lib: needs "));
    EXPECT_TRUE(
        contains(doctor.output, " left: a program that touches what is missing ends by SIGBUS\n"));
}

TEST(room, AnAreaThatHasItsBlocksNeedsNoMore) {
    room_of small("80m");
    small.machine.start({"alloc a 4096 me"}).finish();
    small.fill("20M");
    EXPECT_EQ(fix_for(small.machine, area, " more"), "");
    EXPECT_EQ(tarvoctl(small.machine, {"free", "a", "--force"}).status, 0);
}

TEST(room, ACallWithoutRoomForTheAreaIsRefusedWithTheFix) {
    room_of small("8m");
    EXPECT_EQ(
        tarvoctl(small.machine, {"alloc", "a", "4K"}),
        failed(3,
               "/var/tmp/tarvo_lib needs 68488 KiB more, and the file system on /var/tmp has 8 MiB "
               "left: every program fails to start the library ('failed to map shared memory'); "
               "before Linux 5.14 it ends by SIGBUS; mount -o remount,size=747m /var/tmp"));
    EXPECT_FALSE(run_program(small.machine, {"test", "-e", area}).status == 0);
}

TEST(room, AnAreaThatIsCutShortIsNotGivenRoom) {
    room_of small("140m");
    small.machine.start({"alloc a 4096 me"}).finish();
    run(small.machine, {"truncate", "-s", "12000", area});
    small.fill("140M");
    const auto outcome = tarvoctl(small.machine, {"alloc", "b", "4K"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_TRUE(contains(outcome.errors, "it was cut short; "));
    EXPECT_FALSE(contains(outcome.errors, "remount"));
}

TEST(room, ARepairWithoutRoomForTheHolesSaysWhatHelps) {
    room_of small("140m");
    small.machine.start({"alloc a 4096 me"}).finish();
    const auto flag = std::to_string(area_offset::chunk(2) + area_offset::allocated);
    small.shell("printf '\\0' | dd of=/var/tmp/tarvo_lib bs=1 conv=notrunc seek=" + flag);
    small.make_holes();
    small.fill("140M");
    const auto outcome = tarvoctl(small.machine, {"repair", "-y", "--backup", "/copy"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_TRUE(contains(outcome.errors, "tarvoctl: /var/tmp/tarvo_lib needs "));
    EXPECT_TRUE(contains(outcome.errors, "; mount -o remount,size="));
}

TEST(room, AChunkWithoutRoomIsRefusedBeforeItIsOnTheList) {
    room_of small("80m");
    small.machine.start({"alloc a 4096 me"}).finish();
    const auto outcome = tarvoctl(small.machine, {"alloc", "b", "64M"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_TRUE(starts_with(outcome.errors, "tarvoctl: /var/tmp/tarvo needs 64 MiB more"));
    EXPECT_EQ(json_of(tarvoctl(small.machine, {"list", "--json"})).at("chunks").size(), 1U);
}

TEST(room, ACallThatEndsBySigbusSaysWhy) {
    room_of small("96m");
    small.machine.start({"alloc a 16777216 me"}).finish();
    // Its pages go, and their room with them.
    small.shell("truncate -s 0 /var/tmp/tarvo; truncate -s 713035776 /var/tmp/tarvo");
    small.fill("30M");
    const auto outcome = tarvoctl(small.machine, {"fill", "a", "1"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(starts_with(
        outcome.errors,
        "tarvoctl: the library ended the call with SIGBUS: /var/tmp/tarvo needs 680 MiB more, and "
        "the file system on /var/tmp has 0 bytes left; mount -o remount,size="));
}

} // namespace

} // namespace room_test
