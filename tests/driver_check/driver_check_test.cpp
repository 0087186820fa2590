#include "process.hpp"
#include "temporary_folder.hpp"
#include "world.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using words = std::vector<std::string>;

const std::string device = "0000:03:00.0";
const std::string absent = "0000:ff:1f.6";
/// The double has every device; this takes one away.
const std::string absent_rule = "device=" + absent + ",errno=ENODEV";

words operator+(words first, const words& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// Runs the tool in a sandbox made with these options, after a command of the shell.
finished check_after(const std::string& command, const words& options, const words& arguments) {
    return run_to_end(words{TARVO_SANDBOX} + options +
                      words{"--", "sh", "-c", command + "; exec \"$0\" \"$@\"", DRIVER_CHECK} +
                      arguments);
}

finished check(const words& options, const words& arguments) {
    return run_to_end(words{TARVO_SANDBOX} + options + words{"--", DRIVER_CHECK} + arguments);
}

words clauses_with(const finished& end, const std::string& result) {
    words found;
    const auto document = nlohmann::json::parse(end.output);
    for (const auto& each : document.at("checks")) {
        if (each.at("result") == result) {
            found.push_back(each.at("clause"));
        }
    }
    return found;
}

class every_world : public testing::TestWithParam<world> {};

TEST_P(every_world, KeepsTheContract) {
    const finished end = check({"--world", GetParam().name, "--rule", absent_rule},
                               {"--json", "--device", device, "--absent-device", absent});
    EXPECT_EQ(clauses_with(end, "failed"), words{}) << end.output << end.errors;
    // What cannot be found out in such a world, and nothing else.
    const words of_the_allocator{"3.1", "3.2", "3.3",  "3.4",  "3.6", "3.7",
                                 "3.8", "3.9", "3.10", "3.11", "3.13"};
    EXPECT_EQ(clauses_with(end, "skipped"),
              (GetParam().cma ? words{"3.5"} : of_the_allocator) + words{"6.2"});
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.errors, "");
}

TEST_P(every_world, ChangesNothingWithoutADevice) {
    const temporary_folder folder;
    const std::string log = folder.path() / "log";
    const finished end = check({"--world", GetParam().name, "--log", log}, {});
    EXPECT_EQ(end.status, 0) << end.output;
    const std::string calls = file_text(log);
    EXPECT_NE(calls.find("\"event\":\"write\""), std::string::npos);
    for (size_t at = 0; (at = calls.find("\"event\":\"write\"", at)) != std::string::npos; ++at) {
        const auto line = calls.substr(at, calls.find('\n', at) - at);
        EXPECT_EQ(line.find("\"answer\":\"ok\""), std::string::npos) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(, every_world, testing::ValuesIn(hardware_worlds()), world_name());

TEST(whole_region, CanBeRefusedWhereTheKernelLendsTheMemory) {
    // The first page is a chunk's, so that of the requests only those for the region begin there.
    const finished end = check_after(
        "echo a rx_ring 1000 >/proc/tarvo",
        {"--world", "cma", "--rule", "op=map,range=0x100000000-0x100000000,errno=EINVAL"},
        {"--json", "--device", device});
    EXPECT_EQ(clauses_with(end, "failed"), words{}) << end.output;
    EXPECT_EQ(clauses_with(end, "skipped"), (words{"3.5", "5.6", "6.1", "6.2"})) << end.output;
}

struct broken_driver {
    const char* name;
    words options; ///< of the sandbox, after the world
    words broken;  ///< the clauses that are named
    const char* world = "low";
    const char* command = "true"; ///< run before the check
};

std::ostream& operator<<(std::ostream& stream, const broken_driver& driver) {
    return stream << driver.name;
}

class broken : public testing::TestWithParam<broken_driver> {};

TEST_P(broken, DriverIsNamedByItsClause) {
    const broken_driver& driver = GetParam();
    const finished end =
        check_after(driver.command,
                    words{"--world", driver.world} + driver.options + words{"--rule", absent_rule},
                    {"--json", "--device", device, "--absent-device", absent});
    EXPECT_EQ(clauses_with(end, "failed"), driver.broken) << end.output << end.errors;
    EXPECT_EQ(end.status, 1);
}

words rule(const std::string& text) {
    return {"--rule", text};
}

INSTANTIATE_TEST_SUITE_P(
    Drivers, broken,
    testing::Values(
        broken_driver{"region_file_is_empty", rule("listing=empty"), {"1.1", "1.2", "1.3", "1.4"}},
        broken_driver{"two_fields", {"--region-line", "80000000 8fffffff"}, {"1.2", "1.3", "1.4"}},
        broken_driver{"end_below_start", {"--region-line", "90000000\\t8fffffff\\t0\\tx"}, {"1.3"}},
        broken_driver{"half_a_page", {"--region-line", "80000000\\t8ffff7ff\\t0\\tx"}, {"1.4"}},
        broken_driver{"four_gib", {"--region", "100000000-1ffffffff"}, {"1.5"}},
        broken_driver{"end_of_dma", {"--region", "100000000-1dfffffff"}, {"1.5"}},
        broken_driver{"another_line", rule("listing=empty,nth=6"), {"1.6"}},
        broken_driver{"no_memory_device", {"--without", "mem"}, {"2.1", "2.2", "2.3"}},
        broken_driver{"command_accepted", rule("op=release,short=0"), {"3.5"}},
        broken_driver{"one_opening", rule("op=open-write,file=sysfs,nth=3,errno=EBUSY"), {"4.2"}},
        broken_driver{"malformed_is_gone", rule("file=sysfs,nth=1,errno=ENODEV"), {"4.3"}},
        broken_driver{"impossible_is_gone", rule("file=sysfs,nth=18,errno=ENODEV"), {"4.5"}},
        broken_driver{"whole_line_cut", rule("op=map,nth=6,short=4"), {"5.1"}},
        broken_driver{"repetition_refused", rule("op=map,nth=8,errno=EEXIST"), {"5.2"}},
        broken_driver{"unmap_refused", rule("op=unmap,nth=8,errno=EBUSY"), {"5.3"}},
        broken_driver{"not_mapped_is_gone", rule("op=unmap,nth=10,errno=ENODEV"), {"5.4"}},
        broken_driver{"write_only_refused",
                      rule("op=map,range=0x80000000-0x80000000,nth=4,errno=EPERM"),
                      {"5.6"}},
        broken_driver{"one_process_disturbed",
                      rule("op=map,range=0x8ffff000-0x8ffff000,nth=10,errno=EAGAIN"),
                      {"5.8"}},
        broken_driver{
            "absent_is_invalid", {"--rule", "device=" + absent + ",errno=EINVAL"}, {"6.1"}},
        broken_driver{
            "iommu_half_there", rule("op=map,device=" + device + ",errno=ENOSYS"), {"6.2"}}),
    [](const auto& tested) { return std::string{tested.param.name}; });

INSTANTIATE_TEST_SUITE_P(
    Allocators, broken,
    testing::Values(
        broken_driver{"listing_field_missing",
                      rule("listing=missing-field"),
                      {"3.1", "3.2", "3.6", "3.7", "3.8", "3.10", "3.11", "3.13"},
                      "cma",
                      "echo a rx_ring 1000 >/proc/tarvo"},
        broken_driver{"memory_given_twice",
                      rule("op=allocate,nth=2,address=0x100000000"),
                      {"3.2", "3.6"},
                      "cma",
                      "echo a rx_ring 1000 >/proc/tarvo; echo a rx_stats 1000 >/proc/tarvo"},
        broken_driver{"listed_with_another_size",
                      rule("listing=wrong-size"),
                      {"3.6", "3.7", "3.8", "3.10", "3.11", "3.13"},
                      "cma"},
        broken_driver{"held_name_refused", rule("op=allocate,nth=4,errno=ENOSPC"), {"3.7"}, "cma"},
        broken_driver{
            "two_names_share", rule("op=allocate,nth=6,address=0x100000000"), {"3.8"}, "cma"},
        broken_driver{
            "more_than_there_is", rule("op=allocate,nth=7,address=0x100000000"), {"3.9"}, "cma"},
        broken_driver{
            "released_by_name", rule("op=open-read,nth=37,listing=empty"), {"3.13"}, "cma"}),
    [](const auto& tested) { return std::string{tested.param.name}; });

TEST(bad_line, IsUndoneWhereTheDriverAcceptsIt) {
    const temporary_folder folder;
    const std::string log = folder.path() / "log";
    const finished end =
        check({"--world", "low", "--log", log, "--rule", "file=sysfs,nth=7,short=4"}, {"--json"});
    EXPECT_EQ(clauses_with(end, "failed"), words{"4.3"}) << end.output;
    EXPECT_NE(file_text(log).find("unmap 0 255 255 4096 8190 4096 3 3"), std::string::npos);
}

TEST(output, IsTapWithTheBrokenClauseExplained) {
    const finished end = check({"--world", "low", "--rule", "file=sysfs,nth=1,errno=ENODEV"}, {});
    EXPECT_EQ(end.output.substr(0, end.output.find("ok 2")),
              "TAP version 13\n1..38\nok 1 - 1.1 The region file has a first line\n");
    EXPECT_NE(end.output.find("\nnot ok 24 - 4.3 A malformed line is refused\n"
                              "# \"\" was answered by ENODEV; it must be refused, and not by "
                              "ENOSYS, ENODEV or EUNATCH\n"),
              std::string::npos)
        << end.output;
    EXPECT_NE(end.output.find("\nok 28 - 5.1 A chunk is mapped # SKIP name a device that may be "
                              "used with --device\n"),
              std::string::npos);
    EXPECT_EQ(end.status, 1);
}

void expect_refusal(const finished& end, int status, const std::string& message) {
    EXPECT_EQ(end.output, "");
    EXPECT_EQ(end.errors, "tarvo-driver-check: " + message + "\n");
    EXPECT_EQ(end.status, status);
}

TEST(output, SaysThatThereIsNoDriver) {
    expect_refusal(check({"--without", "sysfs"}, {}), 3,
                   "no driver here: neither /proc/tarvo nor /sys/kernel/tarvo_iommu_map_region is "
                   "there; load the driver");
}

TEST(output, SaysThatTheDeviceIsInUse) {
    expect_refusal(check({"--world", "low", "--rule", "op=map,errno=EBUSY"}, {"--device", device}),
                   3,
                   "--device 0000:03:00.0: EBUSY: another driver has it; unbind that, by echo "
                   "0000:03:00.0 >/sys/bus/pci/devices/0000:03:00.0/driver/unbind");
}

TEST(output, SaysThatTheMachineHasNoSuchDevice) {
    expect_refusal(check({"--world", "low", "--rule", absent_rule}, {"--device", absent}), 3,
                   "--device 0000:ff:1f.6: ENODEV: the machine has no such device; see 'ls "
                   "/sys/bus/pci/devices'");
}

TEST(options, RefusesWhatIsNoDevice) {
    expect_refusal(check({"--world", "low"}, {"--device", "eth0"}), 2,
                   "--device: 'eth0' is not a PCI address; write it as 0000:03:00.0 or 03:00.0");
}

TEST(options, RefusesUnknownWords) {
    expect_refusal(check({"--world", "low"}, {"now"}), 2,
                   "unexpected argument 'now'; see 'tarvo-driver-check --help'");
}

} // namespace
