#include "tool.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace list_test {

namespace {

TEST(list, ShowsEachChunkWithWhereItLiesAndWhoSeesIt) {
    sandbox machine(high);
    const client driver = machine.start(
        {"alloc rx_ring 0x10000 driver_a", "register 0 3 0", "alloc tx_ring 1 driver_b"});
    EXPECT_EQ(tarvoctl(machine, {"list"}),
              printed("INDEX  NAME     DMA                    PHYSICAL                     SIZE  "
                      "CREATOR   DEVICES\n"
                      "    2  rx_ring  0x20000000-0x2000ffff  0x0200000000-0x020000ffff  64 KiB  "
                      "driver_a  0000:03:00.0\n"
                      "    3  tx_ring  0x20010000-0x20010fff  0x0200010000-0x0200010fff   4 KiB  "
                      "driver_b  0000:03:00.0\n"));
}

TEST(list, SortsAndChoosesColumns) {
    sandbox machine(low);
    const client driver = machine.start({"alloc b 1 x", "alloc c 0x200000 y", "alloc a 0x18000 z"});
    EXPECT_EQ(tarvoctl(machine, {"list", "-o", "name,size", "--sort", "name"}).output,
              "NAME    SIZE\na     96 KiB\nb      4 KiB\nc      2 MiB\n");
    EXPECT_EQ(tarvoctl(machine, {"list", "-o", "name,size", "--bytes", "--no-header"}).output,
              "b     4096\nc  2097152\na    98304\n");
    EXPECT_EQ(
        tarvoctl(machine, {"list", "-o", "name", "--sort", "size", "-r", "--no-header"}).output,
        "c\na\nb\n");
}

TEST(list, PrintsNamesWithoutMarksAndTellsOfThoseThatAreShared) {
    sandbox machine(low);
    const client driver =
        machine.start({"alloc stats 1 test", "alloc stats 0x2000 test", "alloc other 1 test"});
    const auto outcome = tarvoctl(machine, {"list", "-o", "name", "--no-header"});
    EXPECT_EQ(outcome.output, "stats\nstats\nother\n");
    EXPECT_EQ(outcome.errors,
              "tarvoctl: 2 chunks are called 'stats'; calls by name find the lowest\n");
}

TEST(list, TellsOfAFewSharedNamesAndCountsTheOthers) {
    sandbox machine(low);
    client driver = machine.start();
    for (const std::string name : {"a", "b", "c", "d", "e", "f", "g"}) {
        driver.alloc(name, 0x1000);
        driver.alloc(name, 0x2000);
    }
    const auto errors = lines_of(tarvoctl(machine, {"list"}).errors);
    ASSERT_EQ(errors.size(), 6U);
    EXPECT_EQ(errors[4], "tarvoctl: 2 chunks are called 'e'; calls by name find the lowest");
    EXPECT_EQ(errors[5], "tarvoctl: and 2 more names like these");
}

TEST(list, GivesNumbersAndHexadecimalTextAsJson) {
    sandbox machine(high);
    machine.start().alloc("rx_ring", 0x1000, "driver");
    const auto document = json_of(tarvoctl(machine, {"list", "--json"}));
    EXPECT_EQ(document.at("schema"), 1);
    EXPECT_EQ(document.at("command"), "list");
    const auto& chunk = document.at("chunks").at(0);
    EXPECT_EQ(chunk.at("name"), "rx_ring");
    EXPECT_EQ(chunk.at("pa").at("number"), 0x200000000);
    EXPECT_EQ(chunk.at("pa").at("hex"), "0x200000000");
    EXPECT_EQ(chunk.at("dma").at("hex"), "0x20000000");
    EXPECT_EQ(chunk.at("devices"), nlohmann::json::array());
}

TEST(list, MakesNoFileWhereThereIsNoArea) {
    sandbox machine(simulation);
    EXPECT_EQ(
        tarvoctl(machine, {"list"}),
        failed(3, "there is no area: looked for /var/tmp/tarvo_lib, because SIMULATION_VMID is "
                  "set. The first program that uses the library makes it; see 'tarvoctl doctor'"));
    EXPECT_EQ(files_of(machine), std::vector<std::string>{});
}

TEST(list, GivesUpAfterTheTimeoutWhileSomebodyHoldsTheLock) {
    sandbox machine(simulation);
    machine.start().alloc("rx_ring", 0x1000);
    const held_lock held(machine.lock_file());
    EXPECT_EQ(
        tarvoctl(machine, {"list", "--timeout", "0.1"}),
        failed(5, "the lock /var/tmp/tarvo_lock was not free within 0.1 s: " + this_process() +
                      " holds it; 'tarvoctl lock' shows more, --timeout waits longer, --no-lock "
                      "reads without it"));
}

TEST(list, ShowsWhatCanBeReadOfADamagedListAndSaysSo) {
    sandbox machine(low);
    const client driver = machine.start({"alloc first 1 test", "alloc second 1 test"});
    machine.writable_area().writer().i32(area_offset::chunk(2) + area_offset::next, 2);
    const auto outcome = tarvoctl(machine, {"list", "-o", "name", "--no-header"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(outcome.output, "first\n");
    EXPECT_EQ(outcome.errors,
              "tarvoctl: the list of chunks is damaged: it leads back to element 2\n"
              "tarvoctl: the area is damaged; see 'tarvoctl check'\n");
}

TEST(list, AndTheOtherLookersSayThatAnAreaIsLeftOverFromAnotherRegion) {
    sandbox machine(low);
    machine.start({"alloc a 4096 me"}).finish();
    machine.writable_area().writer().u64(area_offset::chunk(0) + area_offset::pa, 0x70000000);
    const std::string remark = "tarvoctl: /var/shmem/tarvo_lib is left over from another region, "
                               "0x0070000000-0x008fffffff; this machine's is "
                               "0x0080000000-0x008fffffff; 'tarvoctl doctor' shows what helps\n";
    for (const arguments& words :
         std::vector<arguments>{{"list"}, {"show", "a"}, {"map"}, {"limits"}}) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 0) << words.front();
        EXPECT_EQ(own_errors(outcome), remark) << words.front();
    }
    const temporary_folder folder;
    const std::string copy = folder.path() / "copy";
    EXPECT_EQ(tarvoctl(machine, {"snapshot", copy}).errors, remark);
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", copy}).errors, "");
}

TEST(list, OfADamagedCopySendsToTheCheckOfThatCopy) {
    sandbox machine(low);
    machine.start({"alloc a 4096 me", "alloc b 4096 me"}).finish();
    const taken_snapshot sound(machine);
    machine.writable_area().writer().i32(area_offset::chunk(2) + area_offset::next, 2);
    const taken_snapshot damaged(machine);
    const std::string spaced = damaged.folder.path() / "a $copy";
    ASSERT_EQ(tarvoctl(machine, {"snapshot", spaced}).status, 0);
    const std::string list =
        "tarvoctl: the list of chunks is damaged: it leads back to element 2\n";
    const auto about = [](const std::string& copy, const std::string& word) {
        return "tarvoctl: " + copy + " is damaged; see 'tarvoctl check " + word + "'\n";
    };
    const std::string quoted = '"' + (damaged.folder.path() / "a \\$copy").string() + '"';
    const std::string why = list + about(damaged.path, damaged.path);
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", damaged.path}).errors, why);
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", spaced}).errors, list + about(spaced, quoted));
    EXPECT_TRUE(
        contains(tarvoctl(machine, {"check", spaced}).output, "'tarvoctl repair " + quoted + "'"));
    EXPECT_EQ(tarvoctl(machine, {"diff", sound.path, damaged.path}).errors, why);
    EXPECT_EQ(tarvoctl(machine, {"diff", damaged.path, sound.path}).errors, why);
}

TEST(list, NamesFourDevicesOfAChunkAndCountsTheOthers) {
    sandbox machine(low);
    client driver = machine.start();
    for (uint32_t bus = 1; bus <= 7; ++bus) {
        driver.register_device(0, bus, 0);
    }
    driver.alloc("many", 0x1000);
    driver.unregister_device(0, 7, 0);
    driver.unregister_device(0, 6, 0);
    const std::string four = "0000:01:00.0 0000:02:00.0 0000:03:00.0 0000:04:00.0";
    const auto list = [&] {
        return tarvoctl(machine, {"list", "-o", "devices", "--no-header"}).output;
    };
    EXPECT_EQ(list(), four + " and 1 more\n");
    EXPECT_TRUE(contains(tarvoctl(machine, {"show", "many"}).output, four + " and 1 more\n"));
    const auto document = json_of(tarvoctl(machine, {"list", "--json"}));
    EXPECT_EQ(document.at("chunks").at(0).at("devices").size(), 5);
    driver.unregister_device(0, 5, 0);
    EXPECT_EQ(list(), four + "\n");
}

TEST(list, WrongWordsAreUsageErrorsThatNameThem) {
    sandbox machine(low);
    machine.start().alloc("first", 0x1000);
    EXPECT_EQ(tarvoctl(machine, {"list", "-o", "nmae"}),
              failed(2, "-o: unknown column 'nmae'; choose from index, name, dma, pa, size, "
                        "creator and devices"));
    EXPECT_EQ(tarvoctl(machine, {"list", "--timeout", "-1"}).status, 2);
    EXPECT_EQ(tarvoctl(machine, {"lst"}).status, 2);
}

TEST(devices, TellsWhoIsOnlineAndWhatEachSees) {
    sandbox machine(low, {"--rule", "op=map,device=0000:04:01.1,errno=ENODEV"});
    const client driver =
        machine.start({"alloc a 1 test", "alloc b 1 test", "register 0 3 0", "register 0 4 9"});
    EXPECT_EQ(tarvoctl(machine, {"devices"}).output, "INDEX  DEVICE        STATE    CHUNKS\n"
                                                     "    0  0000:03:00.0  online      2/2\n"
                                                     "    1  0000:04:01.1  offline     0/2\n");
    const auto document = json_of(tarvoctl(machine, {"devices", "--json"}));
    EXPECT_EQ(document.at("devices").at(0).at("chunks"), (nlohmann::json{"a", "b"}));
    EXPECT_EQ(document.at("devices").at(1).at("online"), false);
    EXPECT_EQ(document.at("left_over_references"), nlohmann::json::array());
}

TEST(devices, TellsOfReferencesToADeviceThatIsGone) {
    sandbox machine(low);
    client driver = machine.start({"register 0 3 0", "alloc a 1 test"});
    machine.add_rules({"op=map,errno=ENODEV"});
    driver.alloc("b", 0x1000); // takes the device offline
    driver.unregister_device(0, 3, 0);
    EXPECT_EQ(tarvoctl(machine, {"devices"}).output,
              "INDEX  DEVICE  STATE  CHUNKS\n"
              "device record 0 is not registered, yet 1 chunk refers to it, and the next device in "
              "that record inherits it: a\n");
    EXPECT_EQ(tarvoctl(machine, {"list", "-o", "devices", "--no-header"}).output, "?0\n-\n");
}

TEST(empty_words, DoNotPassForTheLiveArea) {
    sandbox machine(low);
    machine.start().alloc("precious", 0x1000);
    const auto before = machine.area().snapshot();
    const std::vector<arguments> commands{{"list", "--area", ""},
                                          {"check", ""},
                                          {"repair", "-y", "--force", ""},
                                          {"diff", ""},
                                          {"diff", "one", ""},
                                          {"who", ""},
                                          {"map", "--fit", ""},
                                          {"map", "--svg", ""},
                                          {"repair", "--backup", ""},
                                          {"snapshot", ""},
                                          {"read", "precious", "--size", ""}};
    for (const auto& words : commands) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 2) << words[0];
        EXPECT_TRUE(contains(outcome.errors, " is empty; give a value")) << words[0];
    }
    EXPECT_EQ(machine.area().snapshot(), before);
    EXPECT_EQ(tarvoctl(machine, {"list", "--area", ""}).errors,
              "tarvoctl: --area is empty; give a value, or leave it out\n");
}

TEST(list, ShowsNoByteThatATerminalObeys) {
    sandbox machine(simulation);
    const auto shown_as = [&](const std::string& name) {
        EXPECT_EQ(tarvoctl(machine, {"alloc", name, "4K"}).status, 0);
        const auto lines =
            lines_of(tarvoctl(machine, {"list", "-o", "name", "--no-header"}).output);
        EXPECT_EQ(tarvoctl(machine, {"free", name, "--force"}).status, 0);
        return lines.at(0);
    };
    EXPECT_EQ(shown_as("x\x1b[31mz"), "x\\x1b[31mz");
    EXPECT_EQ(shown_as("x\xc2\x9b"
                       "31mz"),
              "x\\xc2\\x9b31mz");
    EXPECT_EQ(shown_as("\xc2\xa0\xc3\x9b"), "\xc2\xa0\xc3\x9b") << "letters stay";
    EXPECT_EQ(shown_as("x\xffz"), "x\\xffz");
    EXPECT_EQ(shown_as("x\xc2z"), "x\\xc2z");
    EXPECT_EQ(shown_as("x\\x1b"), "x\\x5cx1b") << "not to be taken for an escape";
    EXPECT_EQ(shown_as("x\xe2\x80\xaez"), "x\\xe2\\x80\\xaez") << "would turn the line round";
    EXPECT_EQ(shown_as("x\xe2\x80\x8bz"), "x\\xe2\\x80\\x8bz") << "would not be seen";
    EXPECT_EQ(shown_as("\xef\xbb\xbfz"), "\\xef\\xbb\\xbfz") << "would not be seen";
    EXPECT_EQ(shown_as("e\xcc\x81 \xe4\xb8\xad"), "e\xcc\x81 \xe4\xb8\xad") << "letters stay";
}

TEST(list, LinesUpNamesOfEveryWidth) {
    sandbox machine(simulation);
    client driver = machine.start({"alloc nameless 1 test"});
    driver.alloc("\xe4\xb8\xad\xe6\x96\x87", 0x1000, "wide");
    driver.alloc("e\xcc\x81", 0x1000, "combined");
    driver.alloc("plain", 0x1000, "ascii");
    const auto area = machine.writable_area();
    const area_writer write = area.writer();
    write.text(area_offset::chunk(2) + area_offset::name, "");
    write.text(area_offset::chunk(2) + area_offset::creator, "");
    const auto lines = lines_of(tarvoctl(machine, {"list"}).output);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_TRUE(starts_with(lines[1], "    2  \"\"     0x"));
    EXPECT_TRUE(contains(lines[1], "4 KiB  \"\"  "));
    EXPECT_TRUE(starts_with(lines[2], "    3  \xe4\xb8\xad\xe6\x96\x87   0x"));
    EXPECT_TRUE(starts_with(lines[3], "    4  e\xcc\x81      0x"));
    EXPECT_TRUE(starts_with(lines[4], "    5  plain  0x"));
    EXPECT_EQ(tarvoctl(machine, {"list", "-o", "name", "--no-header"}).output,
              "\n\xe4\xb8\xad\xe6\x96\x87\ne\xcc\x81\nplain\n")
        << "data";
    const auto document = json_of(tarvoctl(machine, {"list", "--json"}));
    EXPECT_EQ(document.at("chunks").at(0).at("name"), "");
    const std::string map = tarvoctl(machine, {"map"}).output;
    EXPECT_TRUE(contains(map, "4 KiB  \"\"\n"));
}

TEST(list, KeepsNamesApartThatAreNoUtf8) {
    sandbox machine(simulation);
    ASSERT_EQ(tarvoctl(machine, {"alloc", "a\xfe", "4K"}).status, 0);
    ASSERT_EQ(tarvoctl(machine, {"alloc", "a\xff", "4K", "--creator", "\x80"}).status, 0);
    ASSERT_EQ(tarvoctl(machine, {"alloc", "plain", "4K"}).status, 0);
    const auto chunks = json_of(tarvoctl(machine, {"list", "--json"})).at("chunks");
    EXPECT_EQ(chunks.at(0).at("name"), chunks.at(1).at("name"));
    EXPECT_EQ(chunks.at(0).at("name_bytes"), "61fe");
    EXPECT_EQ(chunks.at(1).at("name_bytes"), "61ff");
    EXPECT_EQ(chunks.at(1).at("creator_bytes"), "80");
    EXPECT_FALSE(chunks.at(2).contains("name_bytes"));
    EXPECT_FALSE(chunks.at(0).contains("creator_bytes"));
}

TEST(list, WorksForAUserWhoMayNotOpenTheLockThatIsNotHis) {
    sandbox machine(simulation);
    machine.start().alloc("rx_ring", pages(1));
    std::ofstream(machine.hardware_lock()) << "";
    std::filesystem::permissions(machine.hardware_lock(), std::filesystem::perms::none);
    const auto outcome = tarvoctl_of_stranger(machine, {"list"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    std::filesystem::permissions(machine.simulated_lock(), std::filesystem::perms::none);
    EXPECT_EQ(tarvoctl_of_stranger(machine, {"list"}).status, 3) << "his own he has to take";
}

/// The world `low` with something in place of a simulated memory that the library cannot open as
/// one, and with a chunk of the hardware's region.
class no_simulation : public testing::Test {
  public:
    no_simulation() {
        std::filesystem::create_directory(machine.simulated_memory());
        driver.alloc("rx_ring", pages(1));
    }

    std::string area_of(const arguments& program) {
        const arguments doctor{TARVOCTL, "doctor", "--json"};
        return json_of(run_program(machine, program + doctor)).at("checks").at(0).at("text");
    }

    sandbox machine{low};
    client driver{machine.start()};
};

TEST_F(no_simulation, WithoutTheVariableTheHardwareIsLookedAt) {
    ASSERT_TRUE(exists(machine.hardware_area()));
    EXPECT_EQ(tarvoctl(machine, {"list", "-o", "name", "--no-header"}).output, "rx_ring\n");
    EXPECT_EQ(area_of({}), "hardware, because SIMULATION_VMID is not set and /var/tmp/tarvo cannot "
                           "be used; users who can get a simulation");
}

TEST_F(no_simulation, WithTheVariableTheHardwareIsLookedAt) {
    client asking = machine.start({"setenv SIMULATION_VMID 1", "alloc tx_ring 4096 me"});
    ASSERT_EQ(driver.dump().size(), 2U);
    const auto listed =
        run_program(machine, {"env", "SIMULATION_VMID=1", TARVOCTL, "list", "-o", "name"});
    EXPECT_EQ(listed.output, "NAME\nrx_ring\ntx_ring\n") << listed.errors;
    EXPECT_EQ(area_of({"env", "SIMULATION_VMID=1"}),
              "hardware, because SIMULATION_VMID is set, but /var/tmp/tarvo cannot be used: "
              "programs that ask for simulation get the hardware");
}

} // namespace

} // namespace list_test
