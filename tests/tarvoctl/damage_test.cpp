#include "tool.hpp"

#include <gtest/gtest.h>

// What commands do with an area that breaks its own rules, besides those that judge or mend it.

namespace {

constexpr int first = 2;
constexpr int second = 3;

class Damage : public ::testing::Test {
  protected:
    sandbox machine{low};
    client driver = machine.start({"alloc first 1 me", "alloc second 1 me", "alloc third 1 me"});
    area_file area = machine.writable_area();
    const area_writer write = area.writer();

    /// All that call the library, with words that are right in a sound area.
    const std::vector<std::vector<std::string>> calls{{"alloc", "fourth", "4K"},
                                                      {"free", "second", "--force"},
                                                      {"register", "0000:03:00.0"},
                                                      {"iommu-map", "0000:03:00.0"},
                                                      {"iommu-unmap", "0000:03:00.0"},
                                                      {"read", "first"},
                                                      {"write", "first"},
                                                      {"fill", "first", "1"},
                                                      {"dump"}};

    void expect_all_calls_refused(const std::string& why) {
        const auto before = area.snapshot();
        for (const auto& words : calls) {
            const auto outcome = tarvoctl(machine, words);
            EXPECT_EQ(outcome.status, 4) << words.front() << outcome.errors;
            EXPECT_EQ(outcome.output, "") << words.front();
            EXPECT_NE(outcome.errors.find(why), std::string::npos)
                << words.front() << ": " << outcome.errors;
        }
        EXPECT_EQ(machine.area().snapshot(), before);
        EXPECT_EQ(machine.request_lines().size(), 0U);
    }
};

TEST_F(Damage, AWrongBackLinkKeepsTheLibraryAway) {
    write.i32(area_offset::chunk(second) + area_offset::prev, 77);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 3: prev is 77, but the list "
                             "comes here from 2. The library would break off the call, or make it "
                             "worse; see 'tarvoctl check' and 'tarvoctl repair'\n");
}

TEST_F(Damage, AFreeChainThatLeadsToAUsedChunkKeepsTheLibraryAway) {
    write.i32(area_offset::chunks_free, first);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 2: on the list and on the free "
                             "chain");
}

TEST_F(Damage, AFreeChainOfDeviceReferencesThatLeadsNowhereKeepsTheLibraryAway) {
    write.i32(area_offset::chunk(first) + area_offset::devs_free, 777);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 2, its device list: the free "
                             "chain goes on at 777, which is no element");
}

TEST_F(Damage, AnotherRegionsAreaIsNotWorkedOn) {
    const auto tail = area.view().chunk_ends().tail;
    write.u64(area_offset::chunk(tail) + area_offset::pa, low.end() - 0x1000);
    expect_all_calls_refused("tarvoctl: /var/shmem/tarvo_lib is left over from another region; end "
                             "all programs that use it, then rm /var/shmem/tarvo_lib. 'tarvoctl "
                             "doctor' tells both regions\n");
    const auto checked = tarvoctl(machine, {"check"});
    EXPECT_EQ(checked.status, 4);
    EXPECT_EQ(lines_of(checked.output).back(),
              "the area is broken: end all programs that use it, then remove its file");
}

TEST_F(Damage, AnAreaThatLostItsFlagIsNotBuiltAnew) {
    write.u8(area_offset::initialized, 0);
    const std::string why =
        "tarvoctl: /var/shmem/tarvo_lib holds chunks or devices, yet says that it was not built: "
        "the next program that starts the library would build it anew, and they would be lost; "
        "see 'tarvoctl repair'\n";
    expect_all_calls_refused(why);
    for (const char* command : {"list", "devices", "limits", "map"}) {
        const auto outcome = tarvoctl(machine, {command});
        EXPECT_EQ(outcome.status, 4) << command;
        EXPECT_EQ(outcome.errors, why) << command;
    }
    const auto watched = tarvoctl(machine, {"watch"});
    EXPECT_EQ(watched.status, 4);
    EXPECT_EQ(watched.errors, why);
    const auto doctor = tarvoctl(machine, {"doctor"});
    EXPECT_EQ(doctor.status, 4);
    EXPECT_NE(doctor.output.find("holds chunks or devices, yet says that it was not built"),
              std::string::npos)
        << doctor.output;
    EXPECT_EQ(tarvoctl(machine, {"repair", "-y", "--force"}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"alloc", "fourth", "4K"}).status, 0);
    EXPECT_EQ(machine.area().view().chunks().size(), 6U);
}

constexpr const char* lost_region =
    "the two records that bound the region are damaged: it is not known where it lies";

/// What does without the region goes on, and says so.
void expect_unknown_region(sandbox& machine) {
    for (const char* command : {"list", "devices", "who", "top"}) {
        const auto outcome = tarvoctl(machine, {command});
        EXPECT_EQ(outcome.status, 4) << command;
        EXPECT_NE(outcome.errors.find(lost_region), std::string::npos) << outcome.errors;
    }
    const auto listed = json_of(tarvoctl(machine, {"list", "--json"}));
    EXPECT_EQ(listed.at("region"), nullptr);
    EXPECT_EQ(listed.at("damage").at(0), lost_region);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"limits"}, {"map"}, {"find", "0x80000000"}, {"translate", "0x80000000"}}) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 4) << words.front();
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors,
                  "tarvoctl: the records do not say where the region lies; see 'tarvoctl check'\n");
    }
}

TEST_F(Damage, AListWithoutEndsIsNoEmptyRegion) {
    write.i32(area_offset::chunks_head, -1);
    write.i32(area_offset::chunks_tail, -1);
    expect_unknown_region(machine);
    expect_all_calls_refused("tarvoctl: the area is broken: ");
    const auto shown = tarvoctl(machine, {"show", "first"});
    EXPECT_EQ(shown.status, 4);
    EXPECT_EQ(shown.errors, "tarvoctl: no chunk called 'first' could be read, and " +
                                std::string(lost_region) + "; see 'tarvoctl check'\n");
}

TEST_F(Damage, ARegionThatEndsBelowItsStartIsNoRegion) {
    const auto tail = area.view().chunk_ends().tail;
    write.u64(area_offset::chunk(tail) + area_offset::pa, 0);
    expect_unknown_region(machine);
    const auto chunk = json_of(tarvoctl(machine, {"list", "--json"})).at("chunks").at(0);
    EXPECT_EQ(chunk.at("dma"), nullptr);
    EXPECT_EQ(chunk.at("pa").at("number"), 0x80000000);
}

TEST_F(Damage, AnAddressOutsideTheRegionOfADamagedAreaIsNotTheCallersFault) {
    EXPECT_EQ(tarvoctl(machine, {"find", "0x1000"}).status, 2);
    write.i32(area_offset::chunk(second) + area_offset::next, second);
    EXPECT_EQ(tarvoctl(machine, {"find", "0x1000"}).status, 4);
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x1000"}).status, 4);
}

TEST_F(Damage, WhatCannotBeReadIsNotToldAsFreed) {
    const temporary_folder folder;
    const std::string before = folder.path() / "before";
    EXPECT_EQ(tarvoctl(machine, {"snapshot", before}).status, 0);
    write.i32(area_offset::chunk(second) + area_offset::next, 99999);
    const std::string why = "the list of chunks is damaged: it leads to element 99999, which does "
                            "not exist";
    const auto since = tarvoctl(machine, {"diff", before});
    EXPECT_EQ(since.status, 4);
    EXPECT_EQ(since.output, "");
    EXPECT_EQ(since.errors, "tarvoctl: " + why +
                                "\ntarvoctl: not everything could be read; see 'tarvoctl check'\n");
    const auto document = json_of(tarvoctl(machine, {"diff", before, "--json"}));
    EXPECT_EQ(document.at("changes").size(), 0U);
    EXPECT_EQ(document.at("damage").at(0), why);
}

TEST(Unbuilt, AnAreaWithoutChunksIsBuiltByTheFirstCall) {
    sandbox machine(low);
    machine.start().limits();
    machine.writable_area().writer().u8(area_offset::initialized, 0);
    const auto listed = tarvoctl(machine, {"list"});
    EXPECT_EQ(listed.status, 3);
    EXPECT_EQ(listed.errors, "tarvoctl: /var/shmem/tarvo_lib is not built yet: no program has "
                             "started the library on it\n");
    EXPECT_EQ(tarvoctl(machine, {"alloc", "a", "4K"}).status, 0);
}

} // namespace
