#include "area_fixture.hpp"

namespace area_check_list_test {

// Each rule of the lists, broken by itself: the rules that are named are all that are found.

namespace {

using tarvoctl::area_list;
using tarvoctl::check_area;
using tarvoctl::finding;
using tarvoctl::finding_class;
using tarvoctl::place;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

using area_check = area_of_three;

auto is_at(const char* rule, finding_class cls, place where) {
    return Contains(AllOf(Field(&finding::rule, rule), Field(&finding::cls, cls),
                          Field(&finding::where, where)));
}

TEST_F(area_check, FindsNothingInASoundArea) {
    EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(area_check, AHeadOutOfRange) {
    write.i32(area_offset::devices_head, 256);
    EXPECT_THAT(rules(), ElementsAre("device-allocated-on-no-list", "device-end-out-of-range",
                                     "ref-device-not-registered"));
}

TEST_F(area_check, ATailOutOfRange) {
    write.i32(area_offset::devices_tail, -2);
    EXPECT_THAT(rules(), ElementsAre("device-cycle", "device-end-out-of-range"));
}

TEST_F(area_check, AnEndByItself) {
    write.i32(area_offset::devices_tail, -1);
    EXPECT_THAT(findings(),
                is_at("device-one-end-only", finding_class::broken, {area_list::devices}));
    write.i32(area_offset::devices_tail, 1);
    write.i32(area_offset::devices_head, -1);
    EXPECT_THAT(findings(),
                is_at("device-one-end-only", finding_class::broken, {area_list::devices}));
}

TEST_F(area_check, ALinkOutOfRange) {
    write.i32(at(middle, area_offset::next), 16384);
    EXPECT_THAT(findings(), is_at("chunk-link-out-of-range", finding_class::broken,
                                  {area_list::chunks, middle}));
    EXPECT_THAT(rules(), ElementsAre("chunk-allocated-on-no-list", "chunk-link-out-of-range"));
}

TEST_F(area_check, ALinkOutOfRangeInAChunksDevices) {
    write.i32(at_ref(0, area_offset::next), -1);
    EXPECT_THAT(findings(), is_at("ref-link-out-of-range", finding_class::broken,
                                  {area_list::refs, middle, 0}));
    EXPECT_THAT(rules(), ElementsAre("ref-allocated-on-no-list", "ref-link-out-of-range"));
}

TEST_F(area_check, ACycle) {
    write.i32(at(high, area_offset::next), low);
    EXPECT_THAT(findings(), is_at("chunk-cycle", finding_class::broken, {area_list::chunks, low}));
    EXPECT_THAT(rules(), ElementsAre("chunk-allocated-on-no-list", "chunk-cycle"));
}

TEST_F(area_check, AListedElementThatIsNotAllocated) {
    write.u8(at(middle, area_offset::allocated), 0);
    EXPECT_THAT(rules(), ElementsAre("chunk-listed-not-allocated"));
}

TEST_F(area_check, ABackLinkThatDisagrees) {
    write.i32(at(middle, area_offset::prev), 0);
    EXPECT_THAT(findings(),
                is_at("chunk-back-link-wrong", finding_class::broken, {area_list::chunks, middle}));
    EXPECT_THAT(rules(), ElementsAre("chunk-back-link-wrong"));
}

TEST_F(area_check, ATailThatDoesNotLeadToTheHead) {
    write.i32(at_device(1, area_offset::next), 1);
    EXPECT_THAT(rules(), ElementsAre("device-circle-open"));
}

TEST_F(area_check, AHeadThatDoesNotLeadToTheTail) {
    write.i32(at_device(0, area_offset::prev), 0);
    EXPECT_THAT(rules(), ElementsAre("device-circle-open"));
}

TEST_F(area_check, AFlagThatIsNeither0Nor1) {
    write.u8(at(middle, area_offset::allocated), 2);
    write.u8(at_device(1, area_offset::allocated), 255);
    EXPECT_THAT(rules(), ElementsAre("chunk-flag-value", "device-flag-value"));
}

TEST_F(area_check, AFreeChainThatLeavesTheArray) {
    write.i32(at(5, area_offset::next), 16384);
    EXPECT_THAT(findings(), is_at("chunk-free-link-out-of-range", finding_class::broken,
                                  {area_list::chunks, 5}));
    EXPECT_THAT(rules(), ElementsAre("chunk-free-link-out-of-range", "chunk-free-on-no-chain"));
}

TEST_F(area_check, AFreeChainThatRunsInACircle) {
    write.i32(at(7, area_offset::next), 5);
    EXPECT_THAT(findings(),
                is_at("chunk-free-cycle", finding_class::broken, {area_list::chunks, 5}));
    EXPECT_THAT(rules(), ElementsAre("chunk-free-cycle", "chunk-free-on-no-chain"));
}

TEST_F(area_check, AFreeChainThatLeadsToTheList) {
    write.i32(at(5, area_offset::next), middle);
    EXPECT_THAT(findings(),
                is_at("chunk-free-and-listed", finding_class::broken, {area_list::chunks, middle}));
    EXPECT_THAT(rules(), ElementsAre("chunk-free-and-listed", "chunk-free-on-no-chain"));
}

TEST_F(area_check, AFreeElementThatIsAllocated) {
    write.u8(at_device(7, area_offset::allocated), 1);
    EXPECT_THAT(findings(),
                is_at("device-free-but-allocated", finding_class::broken, {area_list::devices, 7}));
    EXPECT_THAT(rules(), ElementsAre("device-free-but-allocated"));
}

TEST_F(area_check, AnAllocatedElementOnNoListIsALeak) {
    area.record().chunks.alloc();
    EXPECT_THAT(findings(),
                is_at("chunk-allocated-on-no-list", finding_class::leaked, {area_list::chunks, 5}));
    EXPECT_THAT(rules(), ElementsAre("chunk-allocated-on-no-list"));
}

TEST_F(area_check, AFreeElementOnNoChainIsALeak) {
    write.i32(area_offset::devices_free, 3);
    EXPECT_THAT(findings(),
                is_at("device-free-on-no-chain", finding_class::leaked, {area_list::devices, 2}));
    EXPECT_THAT(rules(), ElementsAre("device-free-on-no-chain"));
}

TEST_F(area_check, AFreeElementThatIsNotZeroIsTolerated) {
    write.i32(at(9, area_offset::prev), 1);
    write.i32(at_ref(200, area_offset::dev), 1);
    EXPECT_THAT(findings(),
                is_at("chunk-free-not-zero", finding_class::tolerated, {area_list::chunks, 9}));
    EXPECT_THAT(rules(), ElementsAre("chunk-free-not-zero", "ref-free-not-zero"));
}

TEST_F(area_check, ASizeInAFreeChunkIsNotTolerated) {
    write.u32(at(9, area_offset::size), 0x1000);
    EXPECT_THAT(findings(),
                is_at("chunk-free-with-size", finding_class::broken, {area_list::chunks, 9}));
    EXPECT_THAT(rules(), ElementsAre("chunk-free-not-zero", "chunk-free-with-size"));
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
