#include "area_fixture.hpp"

namespace area_check_list_test {

// Each rule of the lists, broken by itself: the rules that are named are all that are found.

namespace {

using tarvoctl::area_list;
using tarvoctl::check_area;
using tarvoctl::finding;
using tarvoctl::finding_class;
using tarvoctl::place;
using testing::IsEmpty;

using area_check = area_of_three;

TEST_F(area_check, FindsNothingInASoundArea) {
    EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(area_check, FindsWhatIsWrongWithTheEndsAndLinksOfAList) {
    expect_found({
        {"a head out of range",
         [&] { write.i32(area_offset::devices_head, 256); },
         {"device-allocated-on-no-list", "device-end-out-of-range", "ref-device-not-registered"}},
        {"a tail out of range",
         [&] { write.i32(area_offset::devices_tail, -2); },
         {"device-cycle", "device-end-out-of-range"}},
        {"a head by itself",
         [&] { write.i32(area_offset::devices_tail, -1); },
         {"device-cycle", "device-one-end-only"},
         {{"device-one-end-only", finding_class::broken, {area_list::devices}}}},
        {"a tail by itself",
         [&] { write.i32(area_offset::devices_head, -1); },
         {"device-allocated-on-no-list", "device-one-end-only", "ref-device-not-registered"},
         {{"device-one-end-only", finding_class::broken, {area_list::devices}}}},
        {"a link out of range",
         [&] { write.i32(at(middle, area_offset::next), 16384); },
         {"chunk-allocated-on-no-list", "chunk-link-out-of-range"},
         {{"chunk-link-out-of-range", finding_class::broken, {area_list::chunks, middle}}}},
        {"a link out of range in a chunk's devices",
         [&] { write.i32(at_ref(0, area_offset::next), -1); },
         {"ref-allocated-on-no-list", "ref-link-out-of-range"},
         {{"ref-link-out-of-range", finding_class::broken, {area_list::refs, middle, 0}}}},
        {"a cycle",
         [&] { write.i32(at(high, area_offset::next), low); },
         {"chunk-allocated-on-no-list", "chunk-cycle"},
         {{"chunk-cycle", finding_class::broken, {area_list::chunks, low}}}},
        {"a listed element that is not allocated",
         [&] { write.u8(at(middle, area_offset::allocated), 0); },
         {"chunk-listed-not-allocated"}},
        {"a back link that disagrees",
         [&] { write.i32(at(middle, area_offset::prev), 0); },
         {"chunk-back-link-wrong"},
         {{"chunk-back-link-wrong", finding_class::broken, {area_list::chunks, middle}}}},
        {"a tail that does not lead to the head",
         [&] { write.i32(at_device(1, area_offset::next), 1); },
         {"device-circle-open"}},
        {"a head that does not lead to the tail",
         [&] { write.i32(at_device(0, area_offset::prev), 0); },
         {"device-circle-open"}},
        {"flags that are neither 0 nor 1",
         [&] {
             write.u8(at(middle, area_offset::allocated), 2);
             write.u8(at_device(1, area_offset::allocated), 255);
         },
         {"chunk-flag-value", "device-flag-value"}},
        {"an allocated element on no list",
         [&] { area.record().chunks.alloc(); },
         {"chunk-allocated-on-no-list"},
         {{"chunk-allocated-on-no-list", finding_class::leaked, {area_list::chunks, 5}}}},
    });
}

TEST_F(area_check, FindsWhatIsWrongWithFreeElements) {
    expect_found({
        {"a free chain that leaves the array",
         [&] { write.i32(at(5, area_offset::next), 16384); },
         {"chunk-free-link-out-of-range", "chunk-free-on-no-chain"},
         {{"chunk-free-link-out-of-range", finding_class::broken, {area_list::chunks, 5}}}},
        {"a free chain that runs in a circle",
         [&] { write.i32(at(7, area_offset::next), 5); },
         {"chunk-free-cycle", "chunk-free-on-no-chain"},
         {{"chunk-free-cycle", finding_class::broken, {area_list::chunks, 5}}}},
        {"a free chain that leads to the list",
         [&] { write.i32(at(5, area_offset::next), middle); },
         {"chunk-free-and-listed", "chunk-free-on-no-chain"},
         {{"chunk-free-and-listed", finding_class::broken, {area_list::chunks, middle}}}},
        {"a free element that is allocated",
         [&] { write.u8(at_device(7, area_offset::allocated), 1); },
         {"device-free-but-allocated"},
         {{"device-free-but-allocated", finding_class::broken, {area_list::devices, 7}}}},
        {"a free element on no chain",
         [&] { write.i32(area_offset::devices_free, 3); },
         {"device-free-on-no-chain"},
         {{"device-free-on-no-chain", finding_class::leaked, {area_list::devices, 2}}}},
        {"free elements that are not zero",
         [&] {
             write.i32(at(9, area_offset::prev), 1);
             write.i32(at_ref(200, area_offset::dev), 1);
         },
         {"chunk-free-not-zero", "ref-free-not-zero"},
         {{"chunk-free-not-zero", finding_class::tolerated, {area_list::chunks, 9}}}},
        {"a size in a free chunk",
         [&] { write.u32(at(9, area_offset::size), 0x1000); },
         {"chunk-free-not-zero", "chunk-free-with-size"},
         {{"chunk-free-with-size", finding_class::broken, {area_list::chunks, 9}}}},
    });
}

TEST_F(area_check, CountsWhatItDoesNotList) {
    for (int element = 10; element < 60; ++element) {
        write.u8(at(element, area_offset::allocated), 1);
    }
    tarvoctl::check_options options;
    options.listed_per_rule = 7;
    const auto found = findings(options);
    const auto of_rule = [](const finding& one) { return one.rule == "chunk-free-but-allocated"; };
    EXPECT_EQ(std::count_if(found.begin(), found.end(), of_rule), 7);
    const auto last = std::find_if(found.rbegin(), found.rend(), of_rule);
    ASSERT_NE(last, found.rend());
    EXPECT_EQ(last->unlisted, 43U);
    EXPECT_EQ(last->where, (place{area_list::chunks, 16}));
}

TEST(area_check_full, AFullTableIsSound) {
    fresh_area area;
    area.build(0x1000, 0x2a800000);
    for (int i = 0; i < 256; ++i) {
        area.add_device(0, i, 0);
    }
    for (int i = 0; i < 16382; ++i) {
        const std::string name = "chunk" + std::to_string(i);
        area.add_chunk(i == 0 ? 0 : i + 1, name.c_str(),
                       0x1000 + 0x1000ULL * static_cast<unsigned>(i), 0x1000);
    }
    for (int device = 0; device < 256; ++device) {
        area.add_ref(16383, device);
    }
    std::set<std::string> rules = rules_of(check_area(area.record()));
    rules.erase("chunk-misses-device");
    EXPECT_THAT(rules, IsEmpty());
    EXPECT_THAT(tarvoctl::plan_repair(area.record()).edits, IsEmpty());
}

} // namespace

} // namespace area_check_list_test
