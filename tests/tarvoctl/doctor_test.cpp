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

/// What the doctor says of one subject.
struct remark {
    std::string verdict;
    std::string subject;
    std::string words;    ///< in its text
    std::string fix = {}; ///< in its fix
};

/// What the doctor says on a machine, check by check.
class examination {
  public:
    explicit examination(sandbox& machine)
        : _outcome(tarvoctl(machine, {"doctor", "--json"})), _document(json_of(_outcome)) {}

    int status() const { return _outcome.status; }
    std::string shown() const { return _outcome.output; }

    testing::AssertionResult says(const remark& wanted) const {
        const bool is_said = any([&](const auto& each) {
            const std::string known_fix = each.at("fix").is_null() ? "" : each.at("fix");
            return each.at("verdict") == wanted.verdict && each.at("subject") == wanted.subject &&
                   contains(each.at("text"), wanted.words) && contains(known_fix, wanted.fix);
        });
        return (is_said ? testing::AssertionSuccess() : testing::AssertionFailure()) << shown();
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
        return !any([&](const auto& each) {
            return each.at("subject") == subject &&
                   (each.at("verdict") == "warning" || each.at("verdict") == "error");
        });
    }
    size_t errors() const { return _document.at("errors").get<size_t>(); }
    size_t troubles() const { return errors() + _document.at("warnings").get<size_t>(); }

  private:
    template <typename Condition>
    bool any(Condition condition) const {
        const auto& checks = _document.at("checks");
        return std::any_of(checks.begin(), checks.end(), condition);
    }

    tool_outcome _outcome;
    nlohmann::json _document;
};

/// Examines a machine of which the doctor says that, and ends with that status.
void expect_said(sandbox& machine, int status, const remark& wanted) {
    SCOPED_TRACE(wanted.subject + ": " + wanted.words);
    const examination found(machine);
    EXPECT_TRUE(found.says(wanted));
    EXPECT_EQ(found.status(), status) << found.shown();
}

void expect_content(sandbox& machine) {
    const examination found(machine);
    EXPECT_EQ(found.status(), 0) << found.shown();
}

/// Sees the doctor content where programs ask for simulation.
void expect_content_with_a_simulation(sandbox& machine) {
    const arguments doctor{"env", "SIMULATION_VMID=1", TARVOCTL, "doctor"};
    EXPECT_TRUE(ended(run_program(machine, doctor), 0));
}

/// Carries out a fix that is a command, in the sandbox.
void carry_out(sandbox& machine, const std::string& fix) {
    const std::string path = "PATH=" + fs::path(TARVOCTL).parent_path().string() + ":$PATH; ";
    const auto outcome = run_program(machine, {"sh", "-c", path + fix});
    ASSERT_EQ(outcome.status, 0) << fix << ": " << outcome.errors;
}

/// Carries out the fix for what the doctor says of a subject, up to the fix's remark, and sees the
/// doctor content with it.
void expect_fixed_by_its_command(sandbox& machine, const remark& wanted) {
    SCOPED_TRACE(wanted.subject + ": " + wanted.words);
    const examination before(machine);
    EXPECT_EQ(before.status(), 1);
    EXPECT_TRUE(before.says(wanted));
    const std::string fix = before.fix(wanted.subject, wanted.words);
    carry_out(machine, fix.substr(0, fix.find(';')));
    const examination after(machine);
    EXPECT_TRUE(after.is_content_with(wanted.subject)) << fix << '\n' << after.shown();
}

/// The same of a fix that is for when no program is left.
void expect_fixed_without_programs(sandbox& machine, const remark& wanted) {
    SCOPED_TRACE(wanted.subject + ": " + wanted.words);
    const examination before(machine);
    EXPECT_TRUE(before.says(wanted));
    const std::string fix = before.fix(wanted.subject, wanted.words);
    const std::string no_more_programs = "end all programs that use it, then ";
    const auto at = fix.find(no_more_programs);
    ASSERT_NE(at, std::string::npos) << fix;
    carry_out(machine, fix.substr(at + no_more_programs.size()));
    expect_content(machine);
}

TEST(doctor, FindsNothingWrongWhereAllIsWell) {
    for (const world& each : all_worlds()) {
        sandbox machine(each);
        client user = machine.start({"alloc rx_ring 1 me"});
        const examination found(machine);
        EXPECT_EQ(found.status(), 0) << each << found.shown();
        EXPECT_EQ(found.troubles(), 0U) << each << found.shown();
        for (const remark& well : {remark{"ok", each.area_path(), "which is this machine's"},
                                   {"ok", each.area_path(), std::to_string(user.pid())},
                                   {"ok", each.lock_path(), "free now"}}) {
            EXPECT_TRUE(found.says(well)) << well.words;
        }
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
    expect_said(machine, 0, {"note", "/var/tmp/tarvo_lib", "does not exist yet"});
    EXPECT_EQ(files_of(machine), std::vector<std::string>{});
}

TEST(doctor, WarnsOfHardwareFilesThatStrangersCanOpen) {
    sandbox machine(low);
    const client user = machine.start({"alloc rx_ring 1 me"});
    fs::permissions(machine.shared_area(), fs::perms(0666));
    EXPECT_TRUE(examination(machine).says({"warning", "/var/shmem/tarvo_lib",
                                           "more users than it is meant for",
                                           "chmod 0600 /var/shmem/tarvo_lib"}));
}

TEST(doctor, ChecksTheHardwaresLockInSimulationByTheHardwaresMode) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    const std::string lock = "/var/lock/subsys/tarvo_lock";
    std::ofstream(machine.hardware_lock()) << "";
    const std::vector<std::pair<unsigned, remark>> modes{
        {0600, {"ok", lock, "the lock: mode 0600"}},
        {0666, {"ok", lock, "the lock: mode 0666"}}, // the library's, without the variable
        {0640, {"warning", lock, "more users than it is meant for", "chmod 0600 " + lock}}};
    for (const auto& [mode, verdict] : modes) {
        fs::permissions(machine.hardware_lock(), fs::perms(mode));
        EXPECT_TRUE(examination(machine).says(verdict)) << mode;
    }
}

TEST(doctor, TellsWhoMayNotOpenHisLock) {
    sandbox machine(simulation);
    const client with = machine.start({"limits"});
    const client without = machine.start({"unsetenv SIMULATION_VMID", "limits"});
    fs::permissions(machine.hardware_lock(), fs::perms::none);
    const auto outcome =
        tarvoctl_of_stranger(machine, {"doctor"}, {"env", "-u", "SIMULATION_VMID"});
    EXPECT_TRUE(contains(outcome.output, "/var/lock/subsys/tarvo_lock: this user may not open the "
                                         "lock, and programs started from here take it\n"));
}

/// Gives the sandbox kernel settings of its own, by which it is protected from other users or not.
void set_protection(sandbox& machine, const std::string& name, int level) {
    const std::string script =
        "echo \"$2\" >\"/var/tmp/$1\" && mount --bind \"/var/tmp/$1\" \"/proc/sys/fs/$1\"";
    const auto outcome =
        run_program(machine, {"sh", "-c", script, "sh", name, std::to_string(level)});
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
}

constexpr const char* kernel_protections[]{"protected_symlinks", "protected_hardlinks",
                                           "protected_fifos", "protected_regular"};

TEST(doctor, NamesEachProtectionFromOtherUsersThatIsOff) {
    sandbox machine(low);
    const remark all_on{"ok", "fs.protected_*", "of other users"};
    for (const char* each : kernel_protections) {
        set_protection(machine, each, 1);
    }
    EXPECT_TRUE(examination(machine).says(all_on));
    for (const char* each : kernel_protections) {
        set_protection(machine, each, 0);
        const examination found(machine);
        const std::string name = std::string("fs.") + each;
        EXPECT_TRUE(found.says(
            {"note", name, "is 0: where users are not trusted", "sysctl " + name + "=1"}));
        EXPECT_FALSE(found.says({"ok", "fs.protected_*", ""}));
        EXPECT_EQ(found.status(), 0) << found.shown();
        set_protection(machine, each, 2);
    }
    EXPECT_TRUE(examination(machine).says(all_on));
}

/// Links that root would follow, and a FIFO that would keep it waiting, in the machine's own files.
TEST(doctor, NamesWhatOtherUsersLeftInThePlaceOfAFile) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    for (const fs::path& file : {machine.memory_file(), machine.shared_area()}) {
        fs::rename(file, file.string() + "_real");
        fs::create_symlink(file.filename().string() + "_real", file);
        EXPECT_TRUE(examination(machine).says({"warning", "/var/tmp/" + file.filename().string(),
                                               "is a link, to", "end all programs that use it"}));
    }
    fs::remove(machine.lock_file());
    ASSERT_EQ(mkfifo(machine.lock_file().c_str(), 0666), 0);
    EXPECT_TRUE(examination(machine).says({"error", "/var/tmp/tarvo_lock", "is not a regular file",
                                           "mv /var/tmp/tarvo_lock /var/tmp/tarvo_lock.old"}));
}

/// Both leave no region to compare with the machine's.
TEST(doctor, ListsWhatIsWrongWithTheBoundsOfTheRegion) {
    sandbox machine(low);
    const client driver = machine.start(
        {"alloc a 1 me", "alloc b 1 me", "alloc c 1 me", "alloc d 1 me", "register 0 3 0"});
    const auto area = machine.writable_area();
    const size_t end_of_region = area_offset::chunk(1) + area_offset::pa;
    const std::vector<std::pair<size_t, std::string>> pokes{
        {area_offset::chunks_head, "chunk-head-sentinel"}, {end_of_region, "chunk-region-empty"}};
    for (const auto& [offset, rule] : pokes) {
        const int32_t sound = area.view().i32(offset);
        area.writer().i32(offset, 5);
        const examination found(machine);
        EXPECT_EQ(found.status(), 4) << rule;
        EXPECT_TRUE(found.says({"error", "/var/shmem/tarvo_lib", rule})) << rule;
        const auto lines = lines_of(tarvoctl(machine, {"doctor"}).output);
        EXPECT_TRUE(starts_with(lines.back(), std::to_string(found.errors()) + " error")) << rule;
        area.writer().i32(offset, sound);
    }
}

TEST(doctor, SeesUsersOfAMemoryThatWasRemoved) {
    sandbox machine(simulation);
    client mapping = machine.start({"alloc rx_ring 1 me", "map rx_ring 1 0 0"});
    client started = machine.start({"limits"});
    fs::remove(machine.memory_file());
    const std::string first = std::to_string(std::min(mapping.pid(), started.pid()));
    const std::string second = std::to_string(std::max(mapping.pid(), started.pid()));
    expect_said(machine, 1,
                {"error", "/var/tmp/tarvo",
                 "was removed under processes that still use the removed one, and do not see what "
                 "those that start now write to a chunk: " +
                     first + " (tarvo-client), " + second + " (tarvo-client)",
                 "restart them"});
}

TEST(doctor, QuotesARegionLineThatIsNotWellFormed) {
    const std::vector<std::pair<std::string, remark>> lines{
        {"80000000 to 8fffffff",
         {"error", "/proc/tarvo", "the first line is \"80000000 to 8fffffff\""}},
        {"8fffffff\\t80000000\\t0\\ttarvo", {"error", "/proc/tarvo", "an impossible region"}},
        {"80000001\\t8fffffff\\t0\\ttarvo", {"error", "/proc/tarvo", "does not begin on a page"}},
        {"80000000\\t8ffffffe\\t0\\ttarvo", {"warning", "/proc/tarvo", "does not end on a page"}}};
    for (const auto& [line, verdict] : lines) {
        sandbox machine(low, {"--region-line", line + "\\n"});
        EXPECT_TRUE(examination(machine).says(verdict)) << line;
    }
}

// What each fix says, done, and the doctor asked again.

TEST(doctor_fix, OfAModeIsAChmod) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    for (const auto& [file, mode] :
         std::vector<std::pair<fs::path, std::string>>{{machine.memory_file(), "0600"},
                                                       {machine.shared_area(), "0600"},
                                                       {machine.shared_area(), "0644"},
                                                       {machine.lock_file(), "0600"}}) {
        fs::permissions(file, fs::perms(std::stoul(mode, nullptr, 8)));
        const std::string path = "/var/tmp/" + file.filename().string();
        expect_fixed_by_its_command(
            machine, {"warning", path, "has mode " + mode + ", not 0666", "chmod 0666 " + path});
    }
    expect_content(machine);
}

TEST(doctor_fix, OfALinkPutsTheFileInItsPlace) {
    sandbox machine(simulation);
    machine.start({"alloc rx_ring 1 me"}).finish();
    fs::rename(machine.lock_file(), machine.lock_file().string() + "_real");
    fs::create_symlink("tarvo_lock_real", machine.lock_file());
    expect_fixed_without_programs(
        machine, {"warning", "/var/tmp/tarvo_lock", "is a link, to tarvo_lock_real"});
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(machine.lock_file())));
}

TEST(doctor_fix, OfALinkThatLeadsNowhereOrToADeviceRemovesTheLinkAlone) {
    sandbox machine(simulation);
    machine.start({"alloc rx_ring 1 me"}).finish();
    for (const auto& [target, words] : std::vector<std::pair<std::string, std::string>>{
             {"nowhere", "it is a link to nowhere"}, {"/dev/null", "is not a regular file"}}) {
        fs::remove(machine.lock_file());
        fs::create_symlink(target, machine.lock_file());
        expect_fixed_by_its_command(
            machine, {"error", "/var/tmp/tarvo_lock", words, "rm /var/tmp/tarvo_lock"});
    }
    EXPECT_EQ(run_program(machine, {"test", "-c", "/dev/null"}).status, 0);
}

TEST(doctor_fix, OfAFolderInPlaceOfAFileMovesItAway) {
    sandbox machine(simulation);
    fs::create_directory(machine.lock_file());
    expect_fixed_by_its_command(machine, {"error", "/var/tmp/tarvo_lock", "is not a regular file"});
    fs::create_directory(machine.shared_area());
    expect_fixed_by_its_command(machine, {"error", "/var/tmp/tarvo_lib", "is not a regular file"});
}

TEST(doctor_fix, OfAMissingFolderMakesItAndOfAMissingMemoryItsFile) {
    sandbox machine(low, {"--without", "shmem", "--without", "lockdir", "--without", "mem"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says({"error", "/dev/mem", "No such file or directory"}));
    EXPECT_EQ(found.fix("/dev/mem", "No such file or directory"), "mknod -m 0600 /dev/mem c 1 1");
    // With room for the bookkeeping and its copy.
    EXPECT_EQ(found.fix("/var/shmem", "cannot be used"),
              "mkdir -p /var/shmem && mount -t tmpfs -o size=136m,mode=0755 tmpfs /var/shmem");
    for (const char* folder : {"/var/shmem", "/var/lock/subsys"}) {
        expect_fixed_by_its_command(machine, {"error", folder, "cannot be used"});
    }
    // Not the machine's own memory, which no test may touch, but a file of its name.
    carry_out(machine, "truncate -s 4G /dev/mem");
    expect_content(machine);
}

TEST(doctor_fix, OfAFileInPlaceOfAFolderMovesItAwayAndMakesTheFolder) {
    sandbox machine(low, {"--without", "shmem"});
    carry_out(machine, "touch /var/shmem");
    expect_fixed_by_its_command(machine, {"error", "/var/shmem", "is not a directory"});
}

TEST(doctor_fix, OfALeftOverMemoryLeadsToEitherRegion) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()) << "";
    fs::permissions(machine.simulated_memory(), fs::perms(0666));
    const std::string why = "simulation, because /var/tmp/tarvo exists; SIMULATION_VMID is not "
                            "set, and this machine has a region driver";
    expect_said(machine, 1, {"warning", "selection", why});
    EXPECT_EQ(examination(machine).fix("selection", why),
              "for hardware, end all programs that use the library, then rm /var/tmp/tarvo; for "
              "simulation, set SIMULATION_VMID for all programs");
    expect_content_with_a_simulation(machine);
    carry_out(machine, "rm /var/tmp/tarvo");
    expect_content(machine);
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
    EXPECT_EQ(
        fix, "end all programs that use /var/tmp/tarvo, then mv /var/tmp/tarvo /var/tmp/tarvo.old");
    carry_out(machine, "mv /var/tmp/tarvo /var/tmp/tarvo.old");
    expect_content(machine);
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
        expect_content_with_a_simulation(machine);
    }
}

TEST(doctor_fix, OfAMissingRegionDriverIsSimulation) {
    sandbox machine(low, {"--without", "proc"});
    const std::string why = "cannot be opened (No such file or directory)";
    expect_said(machine, 3, {"error", "/proc/tarvo", why});
    EXPECT_EQ(examination(machine).fix("/proc/tarvo", why),
              "load the region driver; on a machine without one, set SIMULATION_VMID for all "
              "programs");
    expect_content_with_a_simulation(machine);
}

/// A memory device that refuses root, on a kernel that is locked down.
void lock_down(sandbox& machine) {
    machine.add_rules({"file=proc,op=open-write,errno=EPERM"});
    carry_out(
        machine,
        "mount -t tmpfs security /sys/kernel/security && echo 'none [integrity] confidentiality' "
        ">/sys/kernel/security/lockdown && mount --bind /proc/tarvo /dev/mem");
}

TEST(doctor_fix, OfAMemoryThatRefusesRootIsADeviceOfTheDriversOrACapability) {
    sandbox machine(low);
    lock_down(machine);
    const std::string bound = "mount --bind /dev/tarvo_mem /dev/mem";
    EXPECT_TRUE(examination(machine).says(
        {"error", "/dev/mem",
         "opening refused: Operation not permitted: the kernel is locked down "
         "(integrity), and refuses it to root as well",
         bound}));
    const auto refused = tarvoctl(machine, {"alloc", "rx_ring", "4096"});
    EXPECT_TRUE(contains(refused.errors, "the kernel is locked down (integrity)"));
    EXPECT_TRUE(contains(refused.errors, bound));
    EXPECT_FALSE(contains(refused.errors, "run it as root"));
    carry_out(machine, "umount /sys/kernel/security");
    EXPECT_EQ(examination(machine).fix("/dev/mem", "opening refused: Operation not permitted"),
              "run with CAP_SYS_RAWIO");
}

TEST(doctor_fix, OfNoIommuIsNoneInASimulation) {
    const std::string iommu = "/sys/kernel/tarvo_iommu_map_region";
    sandbox machine(simulation, {"--without", "sysfs"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 0) << found.shown();
    EXPECT_TRUE(found.says({"note", iommu, "as in most simulations"}));
    EXPECT_FALSE(contains(found.shown(), "load the IOMMU driver"));
    sandbox hardware(low, {"--without", "sysfs"});
    expect_said(hardware, 1, {"warning", iommu, "no device can be registered"});
    EXPECT_EQ(examination(hardware).fix(iommu, "cannot be written"), "load the IOMMU driver");
}

TEST(doctor_fix, OfASysfsThatIsNotMountedMountsIt) {
    sandbox machine(low);
    carry_out(machine, "mount -t tmpfs none /sys");
    EXPECT_EQ(examination(machine).fix("/sys/kernel/tarvo_iommu_map_region", "cannot be written"),
              "mount -t sysfs sysfs /sys");
    sandbox simulated(simulation);
    carry_out(simulated, "mount -t tmpfs none /sys");
    expect_content(simulated);
}

TEST(doctor_fix, OfAnAreaOfAnotherRegionOrCutShortRemovesItWhenNobodyUsesIt) {
    for (const world& each : {low, simulation}) {
        sandbox machine(each);
        machine.start({"limits"}).finish();
        fs::resize_file(machine.shared_area(), 4096);
        const remark cut_short{"error", each.area_path(),
                               "is cut short: 4096 bytes, an area takes 70130716"};
        expect_said(machine, 4, cut_short);
        expect_fixed_without_programs(machine, cut_short);
    }
    sandbox machine(low);
    machine.start({"limits"}).finish();
    machine.writable_area().writer().u64(area_offset::chunk(0) + area_offset::pa, 0x70000000);
    expect_said(machine, 4,
                {"error", "/var/shmem/tarvo_lib",
                 "made for the region 0x0070000000-0x008fffffff, but this machine has "
                 "0x0080000000-0x008fffffff"});
    expect_fixed_without_programs(
        machine, {"error", "/var/shmem/tarvo_lib", "left over from another region"});
}

TEST(doctor_fix, OfAnAreaThatIsGivenUpBeginsWithTheDevicesThatSeeChunks) {
    const std::string devices_first = "stop or reset the devices first (or restart the machine), "
                                      "because they may still see the memory; then ";
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
    EXPECT_TRUE(ends_with(tarvoctl(machine, {"list"}).errors, devices_first + remove + "\n"));
}

TEST(doctor_fix, OfAnOfflineDeviceThatStillSeesChunksBeginsWithTheDevice) {
    sandbox machine(low);
    client driver = machine.start({"register 0 3 0", "alloc rx_ring 1 test"});
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("tx_ring", 0x1000);
    EXPECT_EQ(examination(machine).fix("0000:03:00.0", "is offline"),
              "tarvoctl register 0000:03:00.0; where it is gone for good, stop or reset the "
              "devices first (or restart the machine), because they may still see the memory; then "
              "tarvoctl unregister 0000:03:00.0");
}

TEST(doctor_fix, OfAMemoryThatIsCutShortLengthensItUnderItsPrograms) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 4096 me", "map rx_ring 1 0 0"});
    fs::resize_file(machine.memory_file(), 0);
    expect_fixed_by_its_command(machine, {"warning", "/var/tmp/tarvo", "is cut short: 0 bytes"});
    expect_content(machine);
    client next = machine.start({"alloc tx_ring 4096 me"});
    EXPECT_EQ(fs::file_size(machine.memory_file()), 713035776U);
}

TEST(doctor_fix, OfAMemoryThatIsGoneFromUnderItsChunksGivesTheAreaUp) {
    sandbox machine(simulation);
    machine.start({"alloc rx_ring 4096 me"}).finish();
    fs::remove(machine.memory_file());
    const remark missing{"error", "/var/tmp/tarvo",
                         "is missing, although the bookkeeping lists 1 chunk: what was in the "
                         "chunks is lost, and the next program that starts makes a new file"};
    expect_said(machine, 1, missing);
    expect_fixed_without_programs(machine, missing);
    machine.start({"limits"}).finish();
    fs::remove(machine.memory_file()); // of an area without chunks nothing is lost
    expect_content(machine);
}

TEST(doctor_fix, OfTwoLocksStartsTheOthersAgain) {
    sandbox machine(simulation);
    client with = machine.start({"limits"});
    client without = machine.start({"unsetenv SIMULATION_VMID", "limits"});
    expect_said(machine, 1,
                {"error", "/var/tmp/tarvo_lib",
                 "with SIMULATION_VMID " + std::to_string(with.pid()) +
                     " (tarvo-client); without it " + std::to_string(without.pid())});
    EXPECT_EQ(examination(machine).fix("/var/tmp/tarvo_lib", "two different locks"),
              "start all programs with SIMULATION_VMID set, or all without it");
    without.finish();
    expect_content(machine);
}

TEST(doctor_fix, OfARemovedFileIsARestart) {
    sandbox machine(simulation);
    client user = machine.start({"limits"});
    fs::remove(machine.shared_area());
    const examination found(machine);
    EXPECT_TRUE(
        found.says({"error", "/var/tmp/tarvo_lib",
                    "share nothing with those that start now: " + std::to_string(user.pid())}));
    EXPECT_EQ(found.fix("/var/tmp/tarvo_lib", "was removed"), "restart them");
    user.finish();
    const client again = machine.start({"limits"});
    expect_content(machine);
}

TEST(doctor_fix, OfAStoppedHolderLetsItGoOn) {
    sandbox machine(simulation);
    client holder = machine.start({"dump_begin"});
    const std::string lock = "/var/tmp/tarvo_lock";
    const std::string pid = std::to_string(holder.pid());
    EXPECT_TRUE(examination(machine).says({"note", lock, "held now by " + pid}));
    ASSERT_EQ(::kill(holder.pid(), SIGSTOP), 0);
    // The signal takes a moment.
    EXPECT_TRUE(eventually([&] {
        return examination(machine).says({"warning", lock, "is stopped"});
    }));
    EXPECT_EQ(examination(machine).status(), 1);
    EXPECT_EQ(examination(machine).fix(lock, "is stopped"), "kill -CONT " + pid);
    ASSERT_EQ(::kill(holder.pid(), SIGCONT), 0);
    holder.call("dump_end");
    expect_content(machine);
}

TEST(doctor_fix, OfDamageIsARepairOrFreesTheChunkOrRemovesTheArea) {
    struct damage {
        std::string rule;
        size_t offset;
        int32_t value;
        std::string fix;
        std::string command;
    };
    const std::string repair = "'tarvoctl repair' shows what can be done";
    const std::vector<damage> damages{
        {"chunk-end-out-of-range", area_offset::chunks_tail, 123456, repair, "tarvoctl repair -y"},
        {"chunk-back-link-wrong", area_offset::chunk(3) + area_offset::prev, 77, repair,
         "tarvoctl repair -y"},
        {"chunk-size-not-pages", area_offset::chunk(2) + area_offset::size, 100,
         "free the chunk with 'tarvoctl free' and allocate it again",
         "tarvoctl free first && tarvoctl alloc first 4K"},
        {"chunk-name-empty", area_offset::chunk(2) + area_offset::name, 0,
         "end all programs that use it, then remove its file", "rm /var/shmem/tarvo_lib"}};
    sandbox machine(low);
    machine.start({"alloc first 1 me", "alloc second 1 me"}).finish();
    for (const damage& each : damages) {
        SCOPED_TRACE(each.rule);
        machine.writable_area().writer().i32(each.offset, each.value);
        expect_said(machine, 4, {"error", "/var/shmem/tarvo_lib", each.rule});
        EXPECT_EQ(examination(machine).fix("/var/shmem/tarvo_lib", each.rule), each.fix);
        carry_out(machine, each.command);
        expect_content(machine);
    }
}

TEST(doctor_fix, OfTheOnlyDeviceThatIsOfflineRegistersItAgain) {
    sandbox machine(low);
    client driver = machine.start({"register 0 3 0", "register 0 4 0"});
    expect_content(machine);
    machine.add_rules({"op=map,device=0000:03:00.0,errno=ENODEV"});
    driver.alloc("rx_ring", 0x1000);
    EXPECT_TRUE(examination(machine).says(
        {"warning", "0000:03:00.0", "is offline: no chunk made from now on is mapped for it"}));
    machine.replace_rules({"op=map,errno=ENODEV"});
    driver.alloc("tx_ring", 0x1000);
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    machine.replace_rules({});
    for (const char* device : {"0000:03:00.0", "0000:04:00.0"}) {
        EXPECT_TRUE(found.says({"warning", device, "no other device is online"}));
        expect_fixed_by_its_command(machine, {"warning", device, "is offline"});
    }
    expect_content(machine);
}

TEST(doctor_fix, OfADeviceThatIsGoneForgetsIt) {
    sandbox machine(low);
    client driver = machine.start({"register 0 3 0"});
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("rx_ring", 0x1000);
    const std::string fix = examination(machine).fix("0000:03:00.0", "is offline");
    const auto at = fix.find("tarvoctl unregister");
    ASSERT_NE(at, std::string::npos) << fix;
    carry_out(machine, fix.substr(at) + " --force");
    expect_content(machine);
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
