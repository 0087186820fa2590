#include "tool.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace doctor_test {

namespace {

namespace fs = std::filesystem;

/// What the doctor says on a machine, check by check.
class examination {
  public:
    explicit examination(sandbox& machine)
        : _outcome(tarvoctl(machine, {"doctor", "--json"})), _document(json_of(_outcome)) {}

    int status() const { return _outcome.status; }
    std::string shown() const { return _outcome.output; }

    /// Whether a check of that verdict is about that subject, with these words and this fix in it.
    bool says(const std::string& verdict, const std::string& subject, const std::string& words,
              const std::string& fix = "") const {
        const auto& checks = _document.at("checks");
        return std::any_of(checks.begin(), checks.end(), [&](const auto& each) {
            const std::string known_fix =
                each.at("fix").is_null() ? "" : each.at("fix").template get<std::string>();
            return each.at("verdict") == verdict && each.at("subject") == subject &&
                   contains(each.at("text"), words) && contains(known_fix, fix);
        });
    }
    /// The fix of the only check about that subject with these words; fails where there is none.
    std::string fix(const std::string& subject, const std::string& words) const {
        for (const auto& each : _document.at("checks")) {
            if (each.at("subject") == subject && contains(each.at("text"), words) &&
                !each.at("fix").is_null()) {
                return each.at("fix");
            }
        }
        ADD_FAILURE() << "no fix for " << subject << ": " << words << '\n' << shown();
        return "";
    }
    /// Whether nothing is said about a subject any more but that it is well, or worth knowing.
    bool is_content_with(const std::string& subject) const {
        const auto& checks = _document.at("checks");
        return std::none_of(checks.begin(), checks.end(), [&](const auto& each) {
            return each.at("subject") == subject &&
                   (each.at("verdict") == "warning" || each.at("verdict") == "error");
        });
    }
    size_t errors() const { return _document.at("errors").get<size_t>(); }
    size_t troubles() const { return errors() + _document.at("warnings").get<size_t>(); }

  private:
    tool_outcome _outcome;
    nlohmann::json _document;
};

/// What a fix says up to its remark.
std::string command_in(const std::string& fix) {
    return fix.substr(0, fix.find(';'));
}

/// Carries out a fix that is a command, in the sandbox.
void carry_out(sandbox& machine, const std::string& fix) {
    const std::string path = "PATH=" + fs::path(TARVOCTL).parent_path().string() + ":$PATH; ";
    const auto outcome = run_program(machine, {"sh", "-c", path + fix});
    ASSERT_EQ(outcome.status, 0) << fix << ": " << outcome.errors;
}

/// Carries out the fix for what the doctor says of a subject, and sees the doctor content with it.
void expect_fixed_by_its_command(sandbox& machine, const std::string& subject,
                                 const std::string& words) {
    const std::string fix = command_in(examination(machine).fix(subject, words));
    carry_out(machine, fix);
    const examination after(machine);
    EXPECT_TRUE(after.is_content_with(subject)) << fix << '\n' << after.shown();
}

constexpr const char* no_more_programs = "end all programs that use it, then ";

/// The same of a fix that is for when no program is left.
void expect_fixed_without_programs(sandbox& machine, const std::string& subject,
                                   const std::string& words) {
    const std::string fix = examination(machine).fix(subject, words);
    const auto at = fix.find(no_more_programs);
    ASSERT_NE(at, std::string::npos) << fix;
    carry_out(machine, fix.substr(at + std::string(no_more_programs).size()));
    const examination after(machine);
    EXPECT_EQ(after.status(), 0) << fix << '\n' << after.shown();
}

TEST(doctor, FindsNothingWrongWhereAllIsWell) {
    for (const world& each : all_worlds()) {
        sandbox machine(each);
        client user = machine.start({"alloc rx_ring 1 me"});
        const examination found(machine);
        EXPECT_EQ(found.status(), 0) << each << found.shown();
        EXPECT_EQ(found.troubles(), 0U) << each << found.shown();
        EXPECT_TRUE(found.says("ok", each.area_path(), "which is this machine's")) << found.shown();
        EXPECT_TRUE(found.says("ok", each.area_path(), std::to_string(user.pid())))
            << found.shown();
        EXPECT_TRUE(found.says("ok", each.lock_path(), "free now")) << found.shown();
    }
}

TEST(doctor, SpeaksToPeopleLineByLineAndWithoutColourIntoAFile) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    const auto outcome = tarvoctl(machine, {"doctor"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(lines_of(outcome.output).front(),
              "ok       selection: simulation, because SIMULATION_VMID is set");
    EXPECT_EQ(lines_of(outcome.output).back(), "Nothing is wrong");
    EXPECT_FALSE(contains(outcome.output, "\033"));
}

TEST(doctor, MakesNoFileWhereThereIsNone) {
    sandbox machine(simulation);
    const examination found(machine);
    EXPECT_EQ(found.status(), 0) << found.shown();
    EXPECT_TRUE(found.says("note", "/var/tmp/tarvo_lib", "does not exist yet"));
    EXPECT_FALSE(exists(machine.shared_area()));
    EXPECT_FALSE(exists(machine.memory_file()));
    EXPECT_FALSE(exists(machine.lock_file()));
}

TEST(doctor, TellsOfModesWithTheCommandThatMendsThem) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    fs::permissions(machine.shared_area(), fs::perms(0644));
    fs::permissions(machine.lock_file(), fs::perms(0600));
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says("warning", "/var/tmp/tarvo_lib", "has mode 0644, not 0666",
                           "chmod 0666 /var/tmp/tarvo_lib"))
        << found.shown();
    EXPECT_TRUE(found.says("warning", "/var/tmp/tarvo_lock", "has mode 0600, not 0666"));
}

TEST(doctor, WarnsOfHardwareFilesThatStrangersCanOpen) {
    sandbox machine(low);
    const client user = machine.start({"alloc rx_ring 1 me"});
    fs::permissions(machine.shared_area(), fs::perms(0666));
    EXPECT_TRUE(examination(machine).says("warning", "/var/shmem/tarvo_lib",
                                          "more users than it is meant for",
                                          "chmod 0600 /var/shmem/tarvo_lib"));
}

TEST(doctor, JudgesTheHardwaresLockInSimulationByTheHardwaresMode) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    const std::string lock = "/var/lock/subsys/tarvo_lock";
    std::ofstream(machine.hardware_lock()) << "";
    const auto verdict_of = [&](unsigned mode, const std::string& verdict, const std::string& words,
                                const std::string& fix) {
        fs::permissions(machine.hardware_lock(), fs::perms(mode));
        const examination found(machine);
        EXPECT_TRUE(found.says(verdict, lock, words, fix)) << found.shown();
    };
    verdict_of(0600, "ok", "the lock: mode 0600", "");
    verdict_of(0666, "ok", "the lock: mode 0666", ""); // the library's, without the variable
    verdict_of(0640, "warning", "more users than it is meant for", "chmod 0600 " + lock);
}

TEST(doctor, TellsWhoMayNotOpenHisLock) {
    sandbox machine(simulation);
    const client with = machine.start({"limits"});
    const client without = machine.start({"unsetenv SIMULATION_VMID", "limits"});
    fs::permissions(machine.hardware_lock(), fs::perms::none);
    const auto outcome =
        tarvoctl_of_stranger(machine, {"doctor"}, {"env", "-u", "SIMULATION_VMID"});
    EXPECT_TRUE(contains(outcome.output, "/var/lock/subsys/tarvo_lock: this user may not open the "
                                         "lock, and programs started from here take it\n"))
        << outcome.output;
}

TEST(doctor, WarnsOfLinks) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    fs::rename(machine.lock_file(), machine.lock_file().string() + "_real");
    fs::create_symlink("tarvo_lock_real", machine.lock_file());
    EXPECT_TRUE(examination(machine).says("warning", "/var/tmp/tarvo_lock",
                                          "is a link, to tarvo_lock_real"));
    fs::remove(machine.lock_file());
    fs::create_symlink("nowhere", machine.lock_file());
    EXPECT_TRUE(examination(machine).says("error", "/var/tmp/tarvo_lock", "it is a link to nowhere",
                                          "rm /var/tmp/tarvo_lock"));
}

/// Gives the sandbox kernel settings of its own, by which it is protected from other users or not.
void set_protection(sandbox& machine, const std::string& name, int level) {
    const std::string script = "echo \"$2\" >\"/var/tmp/$1\" && "
                               "mount --bind \"/var/tmp/$1\" \"/proc/sys/fs/$1\"";
    const auto outcome =
        run_program(machine, {"sh", "-c", script, "sh", name, std::to_string(level)});
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
}

constexpr const char* kernel_protections[]{"protected_symlinks", "protected_hardlinks",
                                           "protected_fifos", "protected_regular"};

TEST(doctor, NamesEachProtectionFromOtherUsersThatIsOff) {
    sandbox machine(low);
    for (const char* each : kernel_protections) {
        set_protection(machine, each, 1);
    }
    EXPECT_TRUE(examination(machine).says("ok", "fs.protected_*", "of other users"));
    for (const char* each : kernel_protections) {
        set_protection(machine, each, 0);
        const examination found(machine);
        const std::string name = std::string("fs.") + each;
        EXPECT_TRUE(
            found.says("note", name, "is 0: where users are not trusted", "sysctl " + name + "=1"))
            << found.shown();
        EXPECT_FALSE(found.says("ok", "fs.protected_*", ""));
        EXPECT_EQ(found.status(), 0) << found.shown();
        set_protection(machine, each, 2);
    }
    EXPECT_TRUE(examination(machine).says("ok", "fs.protected_*", "of other users"));
}

/// Links that root would follow, and a FIFO that would keep it waiting, in the machine's own files.
TEST(doctor, NamesWhatOtherUsersLeftInThePlaceOfAFile) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    for (const fs::path& file : {machine.memory_file(), machine.shared_area()}) {
        fs::rename(file, file.string() + "_real");
        fs::create_symlink(file.filename().string() + "_real", file);
        EXPECT_TRUE(examination(machine).says("warning", "/var/tmp/" + file.filename().string(),
                                              "is a link, to", "end all programs that use it"));
    }
    fs::remove(machine.lock_file());
    ASSERT_EQ(mkfifo(machine.lock_file().c_str(), 0666), 0);
    EXPECT_TRUE(examination(machine).says("error", "/var/tmp/tarvo_lock", "is not a regular file",
                                          "mv /var/tmp/tarvo_lock /var/tmp/tarvo_lock.old"));
}

TEST(doctor, SeesThatALeftOverFileSelectsSimulation) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()) << "";
    const examination found(machine);
    EXPECT_EQ(found.status(), 1) << found.shown();
    EXPECT_TRUE(found.says("warning", "selection",
                           "simulation, because /var/tmp/tarvo exists; SIMULATION_VMID is not "
                           "set, and this machine has a region driver",
                           "rm /var/tmp/tarvo"))
        << found.shown();
}

TEST(doctor, SeesProcessesThatShareTheAreaButNotTheLock) {
    sandbox machine(simulation);
    client with = machine.start({"limits"});
    client without = machine.start({"unsetenv SIMULATION_VMID", "limits"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says("error", "/var/tmp/tarvo_lib",
                           "with SIMULATION_VMID " + std::to_string(with.pid()) +
                               " (tarvo-client); without it " + std::to_string(without.pid()),
                           "or all without it"))
        << found.shown();
}

TEST(doctor, CallsAnAreaOfAnotherRegionDamaged) {
    sandbox machine(low);
    const client user = machine.start({"limits"});
    machine.writable_area().writer().u64(area_offset::chunk(0) + area_offset::pa, 0x70000000);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/shmem/tarvo_lib",
                           "made for the region 0x0070000000-0x008fffffff, but this machine has "
                           "0x0080000000-0x008fffffff"))
        << found.shown();
}

TEST(doctor, CallsAnAreaWithoutItsBoundsDamaged) {
    sandbox machine(low);
    const client user = machine.start({"limits"});
    machine.writable_area().writer().i32(area_offset::chunks_tail, 123456);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/shmem/tarvo_lib", "chunk-end-out-of-range",
                           "'tarvoctl repair' shows what can be done"))
        << found.shown();
}

/// Both leave no region to compare with the machine's.
TEST(doctor, ListsWhatIsWrongWithTheBoundsOfTheRegion) {
    const size_t end_of_region = area_offset::chunk(1) + area_offset::pa;
    const std::vector<std::pair<size_t, std::string>> pokes{
        {area_offset::chunks_head, "chunk-head-sentinel"}, {end_of_region, "chunk-region-empty"}};
    for (const auto& [offset, rule] : pokes) {
        sandbox machine(low);
        client driver = machine.start(
            {"alloc a 1 me", "alloc b 1 me", "alloc c 1 me", "alloc d 1 me", "register 0 3 0"});
        machine.writable_area().writer().i32(offset, 5);
        const examination found(machine);
        EXPECT_EQ(found.status(), 4);
        EXPECT_TRUE(found.says("error", "/var/shmem/tarvo_lib", rule)) << found.shown();
        const auto lines = lines_of(tarvoctl(machine, {"doctor"}).output);
        EXPECT_TRUE(lines.back().starts_with(std::to_string(found.errors()) + " error"))
            << lines.back();
    }
}

TEST(doctor, CallsAnAreaThatIsCutShortDamaged) {
    sandbox machine(simulation);
    machine.start({"limits"}).finish();
    fs::resize_file(machine.shared_area(), 4096);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/tmp/tarvo_lib",
                           "is cut short: 4096 bytes, an area takes 70130716"));
}

TEST(doctor, SeesUsersOfAnAreaThatWasRemoved) {
    sandbox machine(simulation);
    client user = machine.start({"limits"});
    fs::remove(machine.shared_area());
    EXPECT_TRUE(examination(machine).says(
        "error", "/var/tmp/tarvo_lib",
        "share nothing with those that start now: " + std::to_string(user.pid()), "restart them"));
}

TEST(doctor, SeesUsersOfAMemoryThatWasRemoved) {
    sandbox machine(simulation);
    client mapping = machine.start({"alloc rx_ring 1 me"});
    mapping.map("rx_ring");
    client started = machine.start({"limits"});
    fs::remove(machine.memory_file());
    const examination found(machine);
    const std::string first = std::to_string(std::min(mapping.pid(), started.pid()));
    const std::string second = std::to_string(std::max(mapping.pid(), started.pid()));
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says("error", "/var/tmp/tarvo",
                           "was removed under processes that still use the removed one, and do "
                           "not see what those that start now write to a chunk: " +
                               first + " (tarvo-client), " + second + " (tarvo-client)",
                           "restart them"))
        << found.shown();
}

TEST(doctor, CannotReadAnythingWithoutRegionDriver) {
    sandbox machine(low, {"--without", "proc"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 3);
    EXPECT_TRUE(found.says("error", "/proc/tarvo", "cannot be opened (No such file or directory)",
                           "SIMULATION_VMID"))
        << found.shown();
}

TEST(doctor, QuotesARegionLineThatIsNotWellFormed) {
    sandbox machine(low, {"--region-line", "80000000 to 8fffffff\\n"});
    EXPECT_TRUE(examination(machine).says("error", "/proc/tarvo",
                                          "the first line is \"80000000 to 8fffffff\""));
    sandbox reversed(low, {"--region-line", "8fffffff\\t80000000\\t0\\ttarvo\\n"});
    EXPECT_TRUE(examination(reversed).says("error", "/proc/tarvo", "an impossible region"));
    sandbox inside(low, {"--region-line", "80000001\\t8fffffff\\t0\\ttarvo\\n"});
    EXPECT_TRUE(examination(inside).says("error", "/proc/tarvo", "does not begin on a page"));
    sandbox odd_end(low, {"--region-line", "80000000\\t8ffffffe\\t0\\ttarvo\\n"});
    EXPECT_TRUE(examination(odd_end).says("warning", "/proc/tarvo", "does not end on a page"));
}

TEST(doctor, NamesFoldersAndFilesThatAreMissing) {
    sandbox machine(low, {"--without", "shmem", "--without", "mem", "--without", "sysfs"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says("error", "/var/shmem", "cannot be used", "mkdir -p /var/shmem"))
        << found.shown();
    EXPECT_TRUE(found.says("error", "/dev/mem", "No such file or directory"));
    EXPECT_TRUE(
        found.says("warning", "/sys/kernel/tarvo_iommu_map_region", "no device can be registered"));
}

TEST(doctor, WarnsOfAStoppedProcessThatHoldsTheLock) {
    sandbox machine(simulation);
    client holder = machine.start({"dump_begin"});
    EXPECT_TRUE(examination(machine).says("note", "/var/tmp/tarvo_lock",
                                          "held now by " + std::to_string(holder.pid())));
    ASSERT_EQ(::kill(holder.pid(), SIGSTOP), 0);
    bool seen = false;
    do { // the signal takes a moment
        seen = examination(machine).says("warning", "/var/tmp/tarvo_lock", "is stopped");
    } while (!seen);
    EXPECT_EQ(examination(machine).status(), 1);
    ::kill(holder.pid(), SIGCONT);
}

// What each fix says, done, and the doctor asked again.

TEST(doctor_fix, OfAModeIsAChmod) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    for (const auto& [file, path] : std::vector<std::pair<fs::path, std::string>>{
             {machine.memory_file(), "/var/tmp/tarvo"},
             {machine.shared_area(), "/var/tmp/tarvo_lib"},
             {machine.lock_file(), "/var/tmp/tarvo_lock"}}) {
        fs::permissions(file, fs::perms(0600));
        expect_fixed_by_its_command(machine, path, "has mode 0600, not 0666");
    }
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfALinkPutsTheFileInItsPlace) {
    sandbox machine(simulation);
    machine.start({"alloc rx_ring 1 me"}).finish();
    fs::rename(machine.lock_file(), machine.lock_file().string() + "_real");
    fs::create_symlink("tarvo_lock_real", machine.lock_file());
    expect_fixed_without_programs(machine, "/var/tmp/tarvo_lock", "is a link, to tarvo_lock_real");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(machine.lock_file())));
}

TEST(doctor_fix, OfALinkThatLeadsNowhereOrToADeviceRemovesTheLinkAlone) {
    sandbox machine(simulation);
    machine.start({"alloc rx_ring 1 me"}).finish();
    for (const auto& [target, words] : std::vector<std::pair<std::string, std::string>>{
             {"nowhere", "it is a link to nowhere"}, {"/dev/null", "is not a regular file"}}) {
        fs::remove(machine.lock_file());
        fs::create_symlink(target, machine.lock_file());
        expect_fixed_by_its_command(machine, "/var/tmp/tarvo_lock", words);
    }
    EXPECT_EQ(run_program(machine, {"test", "-c", "/dev/null"}).status, 0);
}

TEST(doctor_fix, OfAFolderInPlaceOfAFileMovesItAway) {
    sandbox machine(simulation);
    fs::create_directory(machine.lock_file());
    expect_fixed_by_its_command(machine, "/var/tmp/tarvo_lock", "is not a regular file");
    fs::create_directory(machine.shared_area());
    expect_fixed_by_its_command(machine, "/var/tmp/tarvo_lib", "is not a regular file");
}

TEST(doctor_fix, OfAMissingFolderMakesIt) {
    sandbox machine(low, {"--without", "shmem", "--without", "lockdir"});
    for (const char* folder : {"/var/shmem", "/var/lock/subsys"}) {
        expect_fixed_by_its_command(machine, folder, "cannot be used");
    }
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfTheMissingFolderOfTheBookkeepingMountsRoomForItAndItsCopy) {
    sandbox machine(low, {"--without", "shmem"});
    EXPECT_EQ(examination(machine).fix("/var/shmem", "cannot be used"),
              "mkdir -p /var/shmem && mount -t tmpfs -o size=136m,mode=0755 tmpfs /var/shmem");
}

TEST(doctor_fix, OfAFileInPlaceOfAFolderMovesItAwayAndMakesTheFolder) {
    sandbox machine(low, {"--without", "shmem"});
    carry_out(machine, "touch /var/shmem");
    expect_fixed_by_its_command(machine, "/var/shmem", "is not a directory");
}

TEST(doctor_fix, OfALeftOverMemoryLeadsToEitherRegion) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()) << "";
    fs::permissions(machine.simulated_memory(), fs::perms(0666));
    EXPECT_EQ(examination(machine).fix("selection", "SIMULATION_VMID is not set"),
              "for hardware, end all programs that use the library, then rm /var/tmp/tarvo; for "
              "simulation, set SIMULATION_VMID for all programs");
    const auto as_simulation =
        run_program(machine, {"env", "SIMULATION_VMID=1", TARVOCTL, "doctor"});
    EXPECT_EQ(as_simulation.status, 0) << as_simulation.output;
    carry_out(machine, "rm /var/tmp/tarvo");
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfALeftOverMemoryOffersNoHardwareWithoutADriver) {
    sandbox machine(low, {"--without", "proc"});
    std::ofstream(machine.simulated_memory()) << "";
    EXPECT_EQ(examination(machine).fix("selection", "SIMULATION_VMID is not set"),
              "for simulation, set SIMULATION_VMID for all programs");
}

TEST(doctor_fix, OfAMemoryThatCannotBeUsedMovesItAway) {
    sandbox machine(simulation);
    fs::create_directory(machine.simulated_memory());
    const std::string fix =
        examination(machine).fix("selection", "programs that ask for simulation get the hardware");
    EXPECT_EQ(fix, "end all programs that use /var/tmp/tarvo, then mv /var/tmp/tarvo "
                   "/var/tmp/tarvo.old");
    carry_out(machine, "mv /var/tmp/tarvo /var/tmp/tarvo.old");
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfARegionLineIsALineThatCanBeRead) {
    for (const char* line : {"80000000 to 8fffffff\\n", ""}) {
        sandbox machine(low, {"--region-line", line});
        const std::string fix = examination(machine).fix("/proc/tarvo", "the first line is");
        const std::string such_as = "such as ";
        const auto first = fix.find(such_as) + such_as.size();
        const std::string right = fix.substr(first, fix.find(';') - first);
        sandbox corrected(low, {"--region-line", right + "\\n"});
        EXPECT_EQ(examination(corrected).status(), 0) << right;
        const auto simulated =
            run_program(machine, {"env", "SIMULATION_VMID=1", TARVOCTL, "doctor"});
        EXPECT_EQ(simulated.status, 0) << simulated.output;
    }
}

TEST(doctor_fix, OfAMissingRegionDriverIsSimulation) {
    sandbox machine(low, {"--without", "proc"});
    EXPECT_EQ(examination(machine).fix("/proc/tarvo", "cannot be opened"),
              "load the region driver; on a machine without one, set SIMULATION_VMID for all "
              "programs");
    const auto simulated = run_program(machine, {"env", "SIMULATION_VMID=1", TARVOCTL, "doctor"});
    EXPECT_EQ(simulated.status, 0) << simulated.output;
}

TEST(doctor_fix, OfAMissingMemoryMakesItsFile) {
    sandbox machine(low, {"--without", "mem"});
    const std::string fix = examination(machine).fix("/dev/mem", "No such file or directory");
    EXPECT_EQ(fix, "mknod -m 0600 /dev/mem c 1 1");
    // Not the machine's own memory, which no test may touch, but a file of its name.
    carry_out(machine, "truncate -s 4G /dev/mem");
    EXPECT_EQ(examination(machine).status(), 0);
}

/// A memory device that refuses root, on a kernel that is locked down.
void lock_down(sandbox& machine) {
    machine.add_rules({"file=proc,op=open-write,errno=EPERM"});
    carry_out(machine, "mount -t tmpfs security /sys/kernel/security && "
                       "echo 'none [integrity] confidentiality' >/sys/kernel/security/lockdown && "
                       "mount --bind /proc/tarvo /dev/mem");
}

TEST(doctor_fix, UnderLockdownIsADeviceOfTheDrivers) {
    sandbox machine(low);
    lock_down(machine);
    const examination found(machine);
    const std::string bound = "mount --bind /dev/tarvo_mem /dev/mem";
    EXPECT_TRUE(found.says("error", "/dev/mem",
                           "opening refused: Operation not permitted: the kernel is locked down "
                           "(integrity), and refuses it to root as well",
                           bound))
        << found.shown();
    const auto refused = tarvoctl(machine, {"alloc", "rx_ring", "4096"});
    EXPECT_TRUE(contains(refused.errors, "the kernel is locked down (integrity)"))
        << refused.errors;
    EXPECT_TRUE(contains(refused.errors, bound)) << refused.errors;
    EXPECT_FALSE(contains(refused.errors, "run it as root")) << refused.errors;
}

TEST(doctor_fix, OfAMemoryThatRefusesRootWithoutLockdownIsACapability) {
    sandbox machine(low);
    lock_down(machine);
    carry_out(machine, "umount /sys/kernel/security");
    EXPECT_EQ(examination(machine).fix("/dev/mem", "opening refused: Operation not permitted"),
              "run with CAP_SYS_RAWIO");
}

TEST(doctor_fix, OfNoIommuIsNoneInASimulation) {
    sandbox machine(simulation, {"--without", "sysfs"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 0) << found.shown();
    EXPECT_TRUE(found.says("note", "/sys/kernel/tarvo_iommu_map_region", "as in most simulations"));
    EXPECT_FALSE(contains(found.shown(), "load the IOMMU driver")) << found.shown();
    sandbox hardware(low, {"--without", "sysfs"});
    EXPECT_EQ(examination(hardware).fix("/sys/kernel/tarvo_iommu_map_region", "cannot be written"),
              "load the IOMMU driver");
    EXPECT_TRUE(examination(hardware).status() == 1);
}

TEST(doctor_fix, OfASysfsThatIsNotMountedMountsIt) {
    sandbox machine(low);
    carry_out(machine, "mount -t tmpfs none /sys");
    EXPECT_EQ(examination(machine).fix("/sys/kernel/tarvo_iommu_map_region", "cannot be written"),
              "mount -t sysfs sysfs /sys");
    sandbox simulated(simulation);
    carry_out(simulated, "mount -t tmpfs none /sys");
    EXPECT_EQ(examination(simulated).status(), 0);
}

TEST(doctor_fix, OfAnAreaOfAnotherRegionOrCutShortRemovesItWhenNobodyUsesIt) {
    sandbox machine(low);
    machine.start({"limits"}).finish();
    machine.writable_area().writer().u64(area_offset::chunk(0) + area_offset::pa, 0x70000000);
    expect_fixed_without_programs(machine, "/var/shmem/tarvo_lib", "left over from another region");
    machine.start({"limits"}).finish();
    fs::resize_file(machine.shared_area(), 4096);
    expect_fixed_without_programs(machine, "/var/shmem/tarvo_lib", "is cut short: 4096 bytes");
}

TEST(doctor_fix, OfAnAreaThatIsGivenUpBeginsWithTheDevicesThatSeeChunks) {
    const std::string devices_first =
        "stop or reset the devices first (or restart the machine), because they may still see the "
        "memory; then ";
    const std::string remove = "end all programs that use it, then rm /var/shmem/tarvo_lib";
    sandbox machine(low);
    machine.start({"register 0 3 0", "alloc first 1 me"}).finish();
    machine.writable_area().writer().u8(area_offset::chunk(2) + area_offset::name, 0);
    EXPECT_EQ(examination(machine).fix("/var/shmem/tarvo_lib", "chunk-name-empty"),
              devices_first + "end all programs that use it, then remove its file");
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check"}).output).back(),
              "the area is broken: " + devices_first +
                  "end all programs that use it, then remove its file");
    machine.writable_area().writer().u64(area_offset::chunk(0) + area_offset::pa, 0x70000000);
    EXPECT_EQ(examination(machine).fix("/var/shmem/tarvo_lib", "left over from another region"),
              devices_first + remove);
    EXPECT_EQ(tarvoctl(machine, {"alloc", "b", "4K"}).errors,
              "tarvoctl: /var/shmem/tarvo_lib is left over from another region; " + devices_first +
                  remove + ". 'tarvoctl doctor' shows both regions\n");
    fs::resize_file(machine.shared_area(), 4096);
    EXPECT_EQ(examination(machine).fix("/var/shmem/tarvo_lib", "is cut short"),
              devices_first + remove);
    EXPECT_TRUE(tarvoctl(machine, {"list"}).errors.ends_with(devices_first + remove + "\n"));
}

TEST(doctor_fix, OfAnOfflineDeviceThatStillSeesChunksBeginsWithTheDevice) {
    sandbox machine(low);
    client driver = machine.start();
    driver.register_device(0, 3, 0);
    driver.alloc("rx_ring", 0x1000);
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("tx_ring", 0x1000);
    EXPECT_EQ(
        examination(machine).fix("0000:03:00.0", "is offline"),
        "tarvoctl register 0000:03:00.0; where it is gone for good, stop or reset the devices "
        "first (or restart the machine), because they may still see the memory; then tarvoctl "
        "unregister 0000:03:00.0");
}

TEST(doctor_fix, OfAMemoryThatIsCutShortLengthensItUnderItsPrograms) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 4096 me", "map rx_ring 1 0 0"});
    fs::resize_file(machine.memory_file(), 0);
    expect_fixed_by_its_command(machine, "/var/tmp/tarvo", "is cut short: 0 bytes");
    EXPECT_EQ(examination(machine).status(), 0);
    client next = machine.start({"alloc tx_ring 4096 me"});
    EXPECT_EQ(fs::file_size(machine.memory_file()), 713035776U);
}

TEST(doctor_fix, OfAMemoryThatIsGoneFromUnderItsChunksGivesTheAreaUp) {
    sandbox machine(simulation);
    machine.start({"alloc rx_ring 4096 me"}).finish();
    fs::remove(machine.memory_file());
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says("error", "/var/tmp/tarvo",
                           "is missing, although the bookkeeping lists 1 chunk: what was in the "
                           "chunks is lost, and the next program that starts makes a new file"))
        << found.shown();
    expect_fixed_without_programs(machine, "/var/tmp/tarvo", "is missing");
    machine.start({"limits"}).finish();
    fs::remove(machine.memory_file()); // of an area without chunks nothing is lost
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfTwoLocksStartsTheOthersAgain) {
    sandbox machine(simulation);
    client with = machine.start({"limits"});
    client without = machine.start({"unsetenv SIMULATION_VMID", "limits"});
    EXPECT_EQ(examination(machine).fix("/var/tmp/tarvo_lib", "two different locks"),
              "start all programs with SIMULATION_VMID set, or all without it");
    without.finish();
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfARemovedFileIsARestart) {
    sandbox machine(simulation);
    client user = machine.start({"limits"});
    fs::remove(machine.shared_area());
    EXPECT_EQ(examination(machine).fix("/var/tmp/tarvo_lib", "was removed"), "restart them");
    user.finish();
    const client again = machine.start({"limits"});
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfAStoppedHolderLetsItGoOn) {
    sandbox machine(simulation);
    client holder = machine.start({"dump_begin"});
    ASSERT_EQ(::kill(holder.pid(), SIGSTOP), 0);
    while (!examination(machine).says("warning", "/var/tmp/tarvo_lock", "is stopped")) {
    } // the signal takes a moment
    const std::string fix = examination(machine).fix("/var/tmp/tarvo_lock", "is stopped");
    EXPECT_EQ(fix, "kill -CONT " + std::to_string(holder.pid()));
    ASSERT_EQ(::kill(holder.pid(), SIGCONT), 0);
    holder.call("dump_end");
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfABrokenListRepairsIt) {
    sandbox machine(low);
    machine.start({"alloc first 1 me", "alloc second 1 me"}).finish();
    machine.writable_area().writer().i32(area_offset::chunk(3) + area_offset::prev, 77);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/shmem/tarvo_lib", "chunk-back-link-wrong"))
        << found.shown();
    EXPECT_EQ(found.fix("/var/shmem/tarvo_lib", "chunk-back-link-wrong"),
              "'tarvoctl repair' shows what can be done");
    carry_out(machine, "tarvoctl repair -y");
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfDamageThatNoRepairHelpsRemovesTheArea) {
    sandbox machine(low);
    machine.start({"alloc first 1 me"}).finish();
    machine.writable_area().writer().u8(area_offset::chunk(2) + area_offset::name, 0);
    EXPECT_EQ(examination(machine).fix("/var/shmem/tarvo_lib", "chunk-name-empty"),
              "end all programs that use it, then remove its file");
    fs::remove(machine.shared_area());
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfADamagedChunkFreesIt) {
    sandbox machine(low);
    machine.start({"alloc first 1 me"}).finish();
    machine.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 100);
    EXPECT_EQ(examination(machine).fix("/var/shmem/tarvo_lib", "chunk-size-not-pages"),
              "free the chunk with 'tarvoctl free' and allocate it again");
    carry_out(machine, "tarvoctl free first && tarvoctl alloc first 4K");
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfTheOnlyDeviceThatIsOfflineRegistersItAgain) {
    sandbox machine(low);
    client driver = machine.start();
    driver.register_device(0, 3, 0);
    driver.register_device(0, 4, 0);
    EXPECT_EQ(examination(machine).status(), 0);
    machine.add_rules({"op=map,device=0000:03:00.0,errno=ENODEV"});
    driver.alloc("rx_ring", 0x1000);
    EXPECT_TRUE(examination(machine).says(
        "warning", "0000:03:00.0", "is offline: no chunk made from now on is mapped for it"));
    machine.replace_rules({"op=map,errno=ENODEV"});
    driver.alloc("tx_ring", 0x1000);
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    machine.replace_rules({});
    for (const char* device : {"0000:03:00.0", "0000:04:00.0"}) {
        EXPECT_TRUE(found.says("warning", device, "no other device is online")) << found.shown();
        expect_fixed_by_its_command(machine, device, "is offline");
    }
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor_fix, OfADeviceThatIsGoneForgetsIt) {
    sandbox machine(low);
    client driver = machine.start();
    driver.register_device(0, 3, 0);
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("rx_ring", 0x1000);
    const std::string fix = examination(machine).fix("0000:03:00.0", "is offline");
    const auto at = fix.find("tarvoctl unregister");
    ASSERT_NE(at, std::string::npos) << fix;
    carry_out(machine, fix.substr(at) + " --force");
    EXPECT_EQ(examination(machine).status(), 0);
}

TEST(doctor, ChecksTheRecordsWithoutTheLock) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 1 me"});
    machine.writable_area().writer().u8(area_offset::chunk(2) + area_offset::name, 0);
    const held_lock held(machine.lock_file());
    EXPECT_EQ(examination(machine).status(), 4);
}

} // namespace

} // namespace doctor_test
