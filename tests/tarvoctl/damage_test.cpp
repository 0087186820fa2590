#include "tool.hpp"

#include <gtest/gtest.h>

namespace damage_test {

// What commands do with an area that breaks its own rules, besides those that check or repair it.

namespace {

constexpr int first = 2;
constexpr int second = 3;
constexpr int third = 4;

class damage : public ::testing::Test {
  protected:
    sandbox machine{low};
    client driver = machine.start({"alloc first 1 me", "alloc second 1 me", "alloc third 1 me"});
    area_file area = machine.writable_area();
    const area_writer write = area.writer();

    /// All that call the library, with words that are right in a sound area.
    const std::vector<arguments> calls{{"alloc", "fourth", "4K"},
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
            EXPECT_TRUE(contains(outcome.errors, why)) << words.front();
        }
        EXPECT_EQ(machine.area().snapshot(), before);
        EXPECT_EQ(machine.request_lines().size(), 0U);
    }
};

TEST_F(damage, AWrongBackLinkKeepsTheLibraryAway) {
    write.i32(area_offset::chunk(second) + area_offset::prev, 77);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 3 'second' (creator me): prev is "
                             "77, but the list comes here from 2. The library would break off the "
                             "call, or make it worse; 'tarvoctl check' shows what helps\n");
}

TEST_F(damage, AListThatNeverEndsKeepsTheLibraryAway) {
    write.i32(area_offset::chunk(first) + area_offset::next, first);
    expect_all_calls_refused(
        "tarvoctl: the area is broken: chunk 2 'first' (creator me): the walk comes back to this "
        "element after 2 elements and never reaches the tail 1. The library would break off the "
        "call, or make it worse; 'tarvoctl check' shows what helps\n");
}

TEST_F(damage, AChunkOutsideTheRegionKeepsTheLibraryAway) {
    write.u64(area_offset::chunk(first) + area_offset::pa, 0x1000);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 2 'first' (creator me): begins "
                             "at 0x0000001000, before its predecessor");
}

TEST_F(damage, AFreeChainThatLeadsToAUsedChunkKeepsTheLibraryAway) {
    write.i32(area_offset::chunks_free, first);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 2 'first' (creator me): on the "
                             "list and on the free chain");
}

TEST_F(damage, AFreeChainOfDeviceReferencesThatLeadsNowhereKeepsTheLibraryAway) {
    write.i32(area_offset::chunk(first) + area_offset::devs_free, 777);
    expect_all_calls_refused("tarvoctl: the area is broken: chunk 2 'first' (creator me), its "
                             "device list: the free chain goes on at 777, which is not an element");
}

TEST_F(damage, AnotherRegionsAreaIsNotWorkedOn) {
    const auto tail = area.view().chunk_ends().tail;
    write.u64(area_offset::chunk(tail) + area_offset::pa, low.end() - 0x1000);
    expect_all_calls_refused(
        "tarvoctl: /var/shmem/tarvo_lib is left over from another region; end all programs that "
        "use it, then rm /var/shmem/tarvo_lib. 'tarvoctl doctor' shows both regions\n");
    const auto checked = tarvoctl(machine, {"check"});
    EXPECT_EQ(checked.status, 4);
    EXPECT_EQ(lines_of(checked.output).back(),
              "the area is broken: end all programs that use it, then remove its file");
}

TEST_F(damage, AWrongHeadOfTheListIsNotTakenForAnotherRegion) {
    write.i32(area_offset::chunks_head, third);
    expect_all_calls_refused("'tarvoctl check' shows what helps\n");
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check"}).output).back(),
              "the area is broken: 'tarvoctl repair' shows what can be done");
    const auto planned = tarvoctl(machine, {"repair", "--dry-run"});
    EXPECT_EQ(planned.status, 1);
    EXPECT_EQ(lines_of(planned.output).size(), 1U) << planned.output;
    EXPECT_EQ(tarvoctl(machine, {"repair", "-y", "--force"}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"check"}).status, 0);
}

/// A list that does not lead from one bound to the other says nothing of the region.
TEST_F(damage, ABrokenListIsRepairedBeforeItsRegionIsCompared) {
    const auto tail = area.view().chunk_ends().tail;
    write.u64(area_offset::chunk(tail) + area_offset::pa, low.end() - 0x1000);
    write.i32(area_offset::chunk(second) + area_offset::next, 99999);
    EXPECT_EQ(lines_of(tarvoctl(machine, {"check"}).output).back(),
              "the area is broken: 'tarvoctl repair' shows what can be done");
    tarvoctl(machine, {"repair", "-y", "--force"});
    expect_all_calls_refused("is left over from another region");
}

TEST_F(damage, AnAreaThatLostItsFlagIsNotBuiltAnew) {
    write.u8(area_offset::initialized, 0);
    const std::string why = "tarvoctl: /var/shmem/tarvo_lib holds chunks or devices, yet says that "
                            "it was not built: the next program that starts the library would "
                            "build it anew, and they would be lost; see 'tarvoctl repair'\n";
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
    EXPECT_TRUE(contains(doctor.output, "initialized is 0, yet there are chunks or devices"));
    EXPECT_EQ(tarvoctl(machine, {"repair", "-y", "--force"}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"alloc", "fourth", "4K"}).status, 0);
    EXPECT_EQ(machine.area().view().chunks().size(), 6U);
}

constexpr const char* lost_region =
    "the two records that bound the region are damaged: it is unknown where it lies";

/// What does without the region goes on, and says so.
void expect_unknown_region(sandbox& machine) {
    for (const char* command : {"list", "devices", "who", "top"}) {
        const auto outcome = tarvoctl(machine, {command});
        EXPECT_EQ(outcome.status, 4) << command;
        EXPECT_TRUE(contains(outcome.errors, lost_region));
    }
    const auto listed = json_of(tarvoctl(machine, {"list", "--json"}));
    EXPECT_EQ(listed.at("region"), nullptr);
    EXPECT_EQ(listed.at("damage").at(0), lost_region);
    for (const arguments& words : std::vector<arguments>{
             {"limits"}, {"map"}, {"find", "0x80000000"}, {"translate", "0x80000000"}}) {
        EXPECT_EQ(tarvoctl(machine, words),
                  failed(4, "the records do not say where the region lies; see 'tarvoctl check'"))
            << words.front();
    }
}

TEST_F(damage, AListWithoutEndsIsNoEmptyRegion) {
    write.i32(area_offset::chunks_head, -1);
    write.i32(area_offset::chunks_tail, -1);
    expect_unknown_region(machine);
    expect_all_calls_refused("tarvoctl: the area is broken: ");
    EXPECT_EQ(tarvoctl(machine, {"show", "first"}),
              failed(4, "no chunk called 'first' could be read, and " + std::string(lost_region) +
                            "; see 'tarvoctl check'"));
}

TEST_F(damage, ARegionThatEndsBelowItsStartIsNoRegion) {
    const auto tail = area.view().chunk_ends().tail;
    write.u64(area_offset::chunk(tail) + area_offset::pa, 0);
    expect_unknown_region(machine);
    const auto chunk = json_of(tarvoctl(machine, {"list", "--json"})).at("chunks").at(0);
    EXPECT_EQ(chunk.at("dma"), nullptr);
    EXPECT_EQ(chunk.at("pa").at("number"), 0x80000000);
}

TEST_F(damage, AnAddressOutsideTheRegionOfADamagedAreaIsNotTheCallersFault) {
    EXPECT_EQ(tarvoctl(machine, {"find", "0x1000"}).status, 2);
    write.i32(area_offset::chunk(second) + area_offset::next, second);
    EXPECT_EQ(tarvoctl(machine, {"find", "0x1000"}).status, 4);
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x1000"}).status, 4);
}

TEST_F(damage, WhatCannotBeReadIsNotReportedAsFreed) {
    const taken_snapshot before(machine);
    write.i32(area_offset::chunk(second) + area_offset::next, 99999);
    const std::string why =
        "the list of chunks is damaged: it leads to element 99999, which does not exist";
    const auto since = tarvoctl(machine, {"diff", before.path});
    EXPECT_EQ(since.status, 4);
    EXPECT_EQ(since.output, "");
    EXPECT_EQ(since.errors,
              "tarvoctl: " + why + "\ntarvoctl: the area is damaged; see 'tarvoctl check'\n");
    const auto document = json_of(tarvoctl(machine, {"diff", before.path, "--json"}));
    EXPECT_EQ(document.at("changes").size(), 0U);
    EXPECT_EQ(document.at("damage").at(0), why);
}

/// Places that the records no longer show. In the region are "first", "second" and "third", a page
/// each.
class unknown_places : public damage {
  protected:
    /// The list breaks off after "first"; "second" and "third" are still in use.
    void cut_after_first() const { write.i32(area_offset::chunk(first) + area_offset::next, 77); }
    /// "first" reaches to the end of "second".
    void overlap() const { write.u32(area_offset::chunk(first) + area_offset::size, 0x2000); }

    tool_outcome run(const arguments& words) { return tarvoctl(machine, words); }
};

TEST_F(unknown_places, NoPlaceIsPromisedWhereNotAllChunksCouldBeRead) {
    // It breaks off after "first"; it leads past "second", to which "third" still links back.
    for (const int next : {77, third}) {
        write.i32(area_offset::chunk(first) + area_offset::next, next);
        const auto fit = run({"map", "--fit", "4K"});
        EXPECT_EQ(fit.status, 4);
        EXPECT_EQ(fit.output,
                  "4 KiB: where it would go is unknown, because not all chunks could be read\n");
        EXPECT_TRUE(ends_with(fit.errors, "see 'tarvoctl check'\n"));
        const auto document = json_of(run({"map", "--fit", "4K", "--json"}));
        EXPECT_EQ(document.at("fit").at("damage"), "not all chunks could be read");
        EXPECT_EQ(document.at("fit").at("place"), nullptr);
        EXPECT_EQ(document.at("free_bytes"), nullptr);
        EXPECT_EQ(document.at("gaps").size(), 0U);
    }
}

TEST_F(unknown_places, NoPlaceIsPromisedWhereAChunkDoesNotFillItsPages) {
    for (const uint32_t bytes : {0U, 1000U, 0x2fffU}) {
        write.u32(area_offset::chunk(second) + area_offset::size, bytes);
        const std::string why = "chunk " + std::to_string(second) +
                                " does not fill whole pages: " + std::to_string(bytes) +
                                " bytes from 0x80001000";
        const auto fit = run({"map", "--fit", "4K"});
        EXPECT_EQ(fit.status, 4);
        EXPECT_EQ(fit.output, "4 KiB: where it would go is unknown, because " + why + "\n");
        const auto map = run({"map"});
        EXPECT_EQ(map.status, 4);
        EXPECT_FALSE(contains(map.output, "(free)"));
        EXPECT_TRUE(starts_with(map.errors, "tarvoctl: " + why + "\n"));
        EXPECT_EQ(json_of(run({"map", "--json"})).at("free_bytes"), nullptr);
        EXPECT_TRUE(ended(run({"find", "0x80001fff"}), 4));
    }
}

TEST_F(unknown_places, UsedMemoryIsNotDrawnAsFree) {
    cut_after_first();
    const auto map = run({"map"});
    EXPECT_EQ(map.status, 4);
    const auto lines = lines_of(map.output);
    ASSERT_EQ(lines.size(), 15U) << map.output;
    EXPECT_EQ(lines[0], "0x0080000000 |A" + std::string(63, '?') + "|");
    EXPECT_EQ(lines[7], "0x008e000000 |" + std::string(64, '?') + "|");
    EXPECT_TRUE(ends_with(lines[9], ", ? unknown"));
    EXPECT_EQ(lines[10], "how much of 256 MiB is free is unknown; 1 chunk could be read");
    EXPECT_EQ(lines[13], "A    0x0080000000       4 KiB  first");
    EXPECT_EQ(lines[14], "     0x0080001000  262140 KiB  unknown");
    EXPECT_TRUE(contains(run({"top"}).output, "\nfree    unknown\n"));
}

TEST_F(unknown_places, AnAddressIsInNoChunkThatCouldBeRead) {
    cut_after_first();
    const auto found = run({"find", "0x80001000"});
    EXPECT_EQ(found.status, 4);
    EXPECT_EQ(found.output, "DMA 0x80001000 is in no chunk that could be read\n");
    const auto shown = run({"show", "first"});
    EXPECT_TRUE(contains(shown.output, "\nabove      unknown\n"));
    const auto chunk = json_of(run({"show", "first", "--json"})).at("chunks").at(0);
    EXPECT_EQ(chunk.at("above").at("gap_bytes"), nullptr);
}

TEST_F(unknown_places, OverlapsAreMarked) {
    overlap();
    const auto map = run({"map"});
    EXPECT_EQ(map.status, 4);
    EXPECT_EQ(map.errors, "tarvoctl: 'first' and 'second' overlap\n"
                          "tarvoctl: the area is damaged; see 'tarvoctl check'\n");
    const auto lines = lines_of(map.output);
    ASSERT_EQ(lines.size(), 11U) << map.output;
    EXPECT_EQ(lines[0].substr(14, 4), "A!B.");
    EXPECT_TRUE(ends_with(lines[3], ", ! in several chunks"));
    EXPECT_EQ(lines[8], "     0x0080001000       4 KiB  OVERLAP of first and second");
    const auto overlaps = json_of(run({"map", "--json"})).at("overlaps");
    ASSERT_EQ(overlaps.size(), 1U);
    EXPECT_EQ(overlaps[0].at("chunks"), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(contains(run({"show", "second"}).output, "OVERLAPS   first, "));
    EXPECT_EQ(run({"map", "--fit", "4K"}).status, 4);
}

TEST_F(unknown_places, AllOwnersOfAnAddressAreNamed) {
    overlap();
    const auto found = run({"find", "0x80001010"});
    EXPECT_EQ(found.output, "DMA 0x80001010 is in 'first', offset 0x1010 of 8 KiB, and in "
                            "'second', offset 0x10 of 4 KiB\n");
    const auto document = json_of(run({"translate", "--json", "0x80001010"}));
    EXPECT_EQ(document.at("chunk").at("name"), "first");
    EXPECT_EQ(document.at("also_in").at(0).at("chunk").at("name"), "second");
    EXPECT_EQ(document.at("also_in").at(0).at("offset"), 0x10);
}

TEST_F(unknown_places, ChunksInTheWrongOrderOrOutsideTheRegionPromiseNothing) {
    write.u64(area_offset::chunk(first) + area_offset::pa, low.start + 0x10000);
    const auto disorder = run({"map", "--fit", "4K"});
    EXPECT_EQ(disorder.status, 4);
    EXPECT_EQ(disorder.errors,
              "tarvoctl: 'second' lies below 'first' but comes after it on the list\n"
              "tarvoctl: the area is damaged; see 'tarvoctl check'\n");
    write.u64(area_offset::chunk(first) + area_offset::pa, 0x1000);
    const auto outside = run({"map", "--fit", "4K"});
    EXPECT_EQ(outside.status, 4);
    EXPECT_EQ(outside.output, "4 KiB: where it would go is unknown, because 'first' does "
                              "not lie in the region\n");
}

TEST(overlap_under_cma, IsMarkedAndNoDamage) {
    sandbox machine(cma);
    machine.start({"alloc first 1 me", "alloc second 1 me"});
    const auto area = machine.writable_area();
    area.writer().u32(area_offset::chunk(first) + area_offset::size, 0x2000);
    area.writer().u64(area_offset::chunk(second) + area_offset::pa,
                      area.view().chunk(first).pa + 0x1000);
    const auto map = tarvoctl(machine, {"map"});
    EXPECT_EQ(map.status, 0) << map.errors;
    EXPECT_TRUE(contains(map.output, "OVERLAP of first and second"));
}

TEST(unbuilt, AnAreaWithoutChunksIsBuiltByTheFirstCall) {
    sandbox machine(low);
    machine.start().limits();
    machine.writable_area().writer().u8(area_offset::initialized, 0);
    EXPECT_EQ(
        tarvoctl(machine, {"list"}),
        failed(3,
               "/var/shmem/tarvo_lib is not built yet: no program has started the library on it"));
    EXPECT_EQ(tarvoctl(machine, {"alloc", "a", "4K"}).status, 0);
}

} // namespace

} // namespace damage_test
