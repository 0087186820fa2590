#include "tool.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

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
    std::size_t troubles() const {
        return _document.at("errors").get<std::size_t>() +
               _document.at("warnings").get<std::size_t>();
    }

  private:
    tool_outcome _outcome;
    nlohmann::json _document;
};

TEST(Doctor, FindsNothingWrongWhereAllIsWell) {
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

TEST(Doctor, SpeaksToPeopleLineByLineAndWithoutColourIntoAFile) {
    sandbox machine(simulation);
    const client user = machine.start({"alloc rx_ring 1 me"});
    const auto outcome = tarvoctl(machine, {"doctor"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(lines_of(outcome.output).front(),
              "ok       selection: simulation, because SIMULATION_VMID is set");
    EXPECT_EQ(lines_of(outcome.output).back(), "Nothing is wrong");
    EXPECT_FALSE(contains(outcome.output, "\033"));
}

TEST(Doctor, MakesNoFileWhereThereIsNone) {
    sandbox machine(simulation);
    const examination found(machine);
    EXPECT_EQ(found.status(), 0) << found.shown();
    EXPECT_TRUE(found.says("note", "/var/tmp/tarvo_lib", "is not there yet"));
    EXPECT_FALSE(exists(machine.shared_area()));
    EXPECT_FALSE(exists(machine.memory_file()));
    EXPECT_FALSE(exists(machine.lock_file()));
}

TEST(Doctor, TellsOfModesWithTheCommandThatMendsThem) {
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

TEST(Doctor, WarnsOfHardwareFilesThatStrangersCanOpen) {
    sandbox machine(low);
    const client user = machine.start({"alloc rx_ring 1 me"});
    fs::permissions(machine.shared_area(), fs::perms(0666));
    EXPECT_TRUE(examination(machine).says("warning", "/var/shmem/tarvo_lib",
                                          "more users than it is meant for",
                                          "chmod 0600 /var/shmem/tarvo_lib"));
}

TEST(Doctor, JudgesTheHardwaresLockInSimulationByTheHardwaresMode) {
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

TEST(Doctor, TellsWhoMayNotOpenHisLock) {
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

TEST(Doctor, WarnsOfLinks) {
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

TEST(Doctor, SeesThatALeftOverFileSelectsSimulation) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()) << "";
    const examination found(machine);
    EXPECT_EQ(found.status(), 1) << found.shown();
    EXPECT_TRUE(found.says("warning", "selection",
                           "simulation, because /var/tmp/tarvo is there; SIMULATION_VMID is not "
                           "set, and this machine has a region driver",
                           "rm /var/tmp/tarvo"))
        << found.shown();
}

TEST(Doctor, SeesProcessesThatShareTheAreaButNotTheLock) {
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

TEST(Doctor, CallsAnAreaOfAnotherRegionDamaged) {
    sandbox machine(low);
    const client user = machine.start({"limits"});
    machine.writable_area().writer().u64(area_offset::chunk(0) + area_offset::pa, 0x70000000);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/shmem/tarvo_lib",
                           "made for the region 0x70000000 to 0x8fffffff, but this machine has "
                           "0x80000000 to 0x8fffffff"))
        << found.shown();
}

TEST(Doctor, CallsAnAreaWithoutItsBoundsDamaged) {
    sandbox machine(low);
    const client user = machine.start({"limits"});
    machine.writable_area().writer().i32(area_offset::chunks_tail, 123456);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/shmem/tarvo_lib",
                           "the two records that bound the region are damaged", "tarvoctl check"));
}

TEST(Doctor, CallsAnAreaThatIsCutShortDamaged) {
    sandbox machine(simulation);
    machine.start({"limits"}).finish();
    fs::resize_file(machine.shared_area(), 4096);
    const examination found(machine);
    EXPECT_EQ(found.status(), 4);
    EXPECT_TRUE(found.says("error", "/var/tmp/tarvo_lib", "is cut short: 4096 bytes"));
}

TEST(Doctor, SeesUsersOfAnAreaThatWasRemoved) {
    sandbox machine(simulation);
    client user = machine.start({"limits"});
    fs::remove(machine.shared_area());
    EXPECT_TRUE(examination(machine).says(
        "error", "/var/tmp/tarvo_lib",
        "share nothing with those that start now: " + std::to_string(user.pid()), "restart them"));
}

TEST(Doctor, SeesUsersOfAMemoryThatWasRemoved) {
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

TEST(Doctor, CannotReadAnythingWithoutRegionDriver) {
    sandbox machine(low, {"--without", "proc"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 3);
    EXPECT_TRUE(found.says("error", "/proc/tarvo", "cannot be opened (No such file or directory)",
                           "SIMULATION_VMID"))
        << found.shown();
}

TEST(Doctor, QuotesARegionLineThatIsNotWellFormed) {
    sandbox machine(low, {"--region-line", "80000000 to 8fffffff\\n"});
    EXPECT_TRUE(examination(machine).says("error", "/proc/tarvo",
                                          "the first line is \"80000000 to 8fffffff\""));
    sandbox reversed(low, {"--region-line", "8fffffff\\t80000000\\t0\\ttarvo\\n"});
    EXPECT_TRUE(examination(reversed).says("error", "/proc/tarvo", "an impossible region"));
}

TEST(Doctor, NamesFoldersAndFilesThatAreMissing) {
    sandbox machine(low, {"--without", "shmem", "--without", "mem", "--without", "sysfs"});
    const examination found(machine);
    EXPECT_EQ(found.status(), 1);
    EXPECT_TRUE(found.says("error", "/var/shmem", "cannot be used", "mkdir -p /var/shmem"))
        << found.shown();
    EXPECT_TRUE(found.says("error", "/dev/mem", "No such file or directory"));
    EXPECT_TRUE(
        found.says("warning", "/sys/kernel/tarvo_iommu_map_region", "no device can be registered"));
}

TEST(Doctor, WarnsOfAStoppedProcessThatHoldsTheLock) {
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

} // namespace
