#include "area_fixture.hpp"

namespace area_check_record_test {

// Each rule of the records, broken by itself: the rules that are named are all that are found.

namespace {

using tarvoctl::area_list;
using tarvoctl::check_area;
using tarvoctl::check_options;
using tarvoctl::finding;
using tarvoctl::finding_class;
using tarvoctl::place;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using area_check_record = area_of_three;

finding_class class_of(const std::vector<finding>& findings, const std::string& rule) {
    const auto found = std::find_if(findings.begin(), findings.end(),
                                    [&](const finding& one) { return one.rule == rule; });
    return found == findings.end() ? finding_class::note : found->cls;
}

TEST(area_check_start, AnAreaOfZerosIsNotBuilt) {
    fresh_area area;
    EXPECT_THAT(check_area(area.record()),
                ElementsAre(AllOf(Field(&finding::rule, "area-not-built"),
                                  Field(&finding::cls, finding_class::note))));
}

TEST(area_check_start, AnAreaWhoseBuilderDiedIsHalfBuilt) {
    fresh_area area;
    area.build(0x1000, 0x100000);
    area.writer().u8(area_offset::initialized, 0);
    EXPECT_THAT(check_area(area.record()),
                ElementsAre(AllOf(Field(&finding::rule, "area-half-built"),
                                  Field(&finding::cls, finding_class::note))));
}

TEST_F(area_check_record, AnAreaInUseThatSaysItIsNotBuilt) {
    write.u8(area_offset::initialized, 0);
    EXPECT_THAT(rules(), ElementsAre("area-built-flag-lost"));
    EXPECT_EQ(class_of(findings(), "area-built-flag-lost"), finding_class::broken);
}

TEST_F(area_check_record, AnInitializedThatIsNeither0Nor1) {
    write.u8(area_offset::initialized, 3);
    EXPECT_THAT(rules(), ElementsAre("area-flag-value"));
}

TEST_F(area_check_record, BytesBetweenTheFieldsAreTolerated) {
    write.u8(2, 1);
    write.u8(at(low, 59), 1);
    write.u8(at_device(0, 27), 1);
    write.u8(at_ref(1, 9), 1);
    EXPECT_THAT(rules(), ElementsAre("area-padding-not-zero", "chunk-padding-not-zero",
                                     "device-padding-not-zero", "ref-padding-not-zero"));
    EXPECT_FALSE(has_class(findings(), finding_class::leaked));
    EXPECT_FALSE(has_class(findings(), finding_class::broken));
}

TEST_F(area_check_record, NoSentinels) {
    write.i32(area_offset::chunks_head, -1);
    write.i32(area_offset::chunks_tail, -1);
    EXPECT_THAT(rules(), ElementsAre("chunk-allocated-on-no-list", "chunk-no-sentinels"));
}

TEST_F(area_check_record, AFirstChunkThatIsNotTheSentinel) {
    write.text(at(0, area_offset::name), "__HERD");
    EXPECT_THAT(rules(), ElementsAre("chunk-head-sentinel"));
    write.text(at(0, area_offset::name), "__HEAD");
    write.u32(at(0, area_offset::size), 0x1000);
    EXPECT_THAT(rules(), ElementsAre("chunk-head-sentinel", "chunk-overlap"));
}

TEST_F(area_check_record, ALastChunkThatIsNotTheSentinel) {
    write.text(at(1, area_offset::name), "");
    EXPECT_THAT(rules(), ElementsAre("chunk-tail-sentinel"));
}

TEST_F(area_check_record, ASentinelWithDevicesIsTolerated) {
    write.i32(at(1, area_offset::devs_head), -1);
    EXPECT_THAT(rules(), ElementsAre("chunk-sentinel-devices"));
    EXPECT_EQ(class_of(findings(), "chunk-sentinel-devices"), finding_class::tolerated);
}

TEST_F(area_check_record, ARegionThatEndsWhereItBegins) {
    write.u64(at(1, area_offset::pa), first_pa);
    EXPECT_THAT(rules(), ElementsAre("chunk-order", "chunk-outside-region", "chunk-overlap",
                                     "chunk-region-empty"));
}

TEST_F(area_check_record, ARegionThatIsNotTheMachinesIsBroken) {
    check_options options;
    options.region = {first_pa, region_bytes};
    EXPECT_THAT(rules(options), IsEmpty());
    options.region->size_bytes += 0x1000;
    EXPECT_THAT(rules(options), ElementsAre("chunk-region-differs"));
    options.region = {first_pa + 0x1000, region_bytes};
    EXPECT_THAT(rules(options), ElementsAre("chunk-region-differs"));
    EXPECT_TRUE(has_class(findings(options), finding_class::broken));
    EXPECT_TRUE(is_of_another_region(findings(options)));
    EXPECT_FALSE(is_of_another_region(findings()));
}

TEST_F(area_check_record, ANameWithoutATerminator) {
    write.text(at(low, area_offset::name), std::string(50, 'x'));
    // The text's terminator went into the byte after the field.
    EXPECT_THAT(rules(), ElementsAre("chunk-name-not-terminated"));
}

TEST_F(area_check_record, NoName) {
    write.u8(at(low, area_offset::name), 0);
    EXPECT_THAT(rules(), ElementsAre("chunk-name-empty"));
}

TEST_F(area_check_record, ANameOfTwoChunksIsTolerated) {
    write.text(at(high, area_offset::name), "low");
    EXPECT_THAT(rules(), ElementsAre("chunk-name-twice"));
    EXPECT_THAT(findings(), Contains(AllOf(Field(&finding::cls, finding_class::tolerated),
                                           Field(&finding::where, place{area_list::chunks, high}),
                                           Field(&finding::text, HasSubstr("\"low\"")))));
}

TEST_F(area_check_record, ACreatorWithoutATerminator) {
    write.text(at(low, area_offset::creator), std::string(99, 'x'));
    EXPECT_THAT(rules(), IsEmpty());
    write.u8(at(low, area_offset::creator + 99), 'x');
    EXPECT_THAT(rules(), ElementsAre("chunk-creator-not-terminated"));
}

TEST_F(area_check_record, NoCreator) {
    write.u8(at(low, area_offset::creator), 0);
    EXPECT_THAT(rules(), ElementsAre("chunk-creator-empty"));
}

TEST_F(area_check_record, ASizeOfNothing) {
    write.u32(at(low, area_offset::size), 0);
    EXPECT_THAT(rules(), ElementsAre("chunk-size-zero"));
}

TEST_F(area_check_record, ASizeThatIsNotWholePages) {
    write.u32(at(low, area_offset::size), 0x800);
    EXPECT_THAT(rules(), ElementsAre("chunk-size-not-pages"));
    check_options options;
    options.page_bytes = 0x800;
    EXPECT_THAT(rules(options), IsEmpty());
}

TEST_F(area_check_record, AnAddressWithinAPageIsTolerated) {
    write.u64(at(low, area_offset::pa), 0x1800);
    EXPECT_THAT(rules(), ElementsAre("chunk-address-not-page"));
    EXPECT_EQ(class_of(findings(), "chunk-address-not-page"), finding_class::tolerated);
}

TEST_F(area_check_record, AChunkThatEndsBehindTheRegion) {
    write.u32(at(high, area_offset::size), region_bytes);
    EXPECT_THAT(rules(), ElementsAre("chunk-outside-region", "chunk-overlap"));
}

TEST_F(area_check_record, AChunkWhoseEndWouldWrap) {
    write.u64(at(high, area_offset::pa), ~uint64_t{0xfff});
    write.u32(at(high, area_offset::size), 0xfffff000);
    EXPECT_THAT(rules(), ElementsAre("chunk-order", "chunk-outside-region", "chunk-overlap"));
}

TEST_F(area_check_record, AChunkBeforeItsPredecessor) {
    write.u64(at(high, area_offset::pa), 0x2000);
    EXPECT_THAT(findings(),
                Contains(AllOf(Field(&finding::rule, "chunk-order"),
                               Field(&finding::where, place{area_list::chunks, high}))));
}

TEST_F(area_check_record, ChunksThatOverlapAreToleratedUnderCmaAlone) {
    write.u32(at(middle, area_offset::size), 0x3000);
    EXPECT_THAT(rules(), ElementsAre("chunk-overlap"));
    EXPECT_EQ(class_of(findings(), "chunk-overlap"), finding_class::broken);
    check_options options;
    options.cma = true;
    EXPECT_THAT(rules(options), ElementsAre("chunk-overlap-under-cma"));
    EXPECT_EQ(class_of(findings(options), "chunk-overlap-under-cma"), finding_class::tolerated);
}

TEST_F(area_check_record, AChunkThatHoldsMoreThanItsSuccessor) {
    write.u32(at(low, area_offset::size), 0x8000);
    const auto found = findings();
    EXPECT_EQ(std::count_if(found.begin(), found.end(),
                            [](const finding& one) { return one.rule == "chunk-overlap"; }),
              2);
}

TEST_F(area_check_record, ADeviceThatIsRegisteredTwice) {
    write.i32(at_device(1, area_offset::bus), 3);
    EXPECT_THAT(rules(), IsEmpty());
    write.i32(at_device(1, area_offset::devfn), 8);
    EXPECT_THAT(rules(), ElementsAre("device-address-twice"));
}

TEST_F(area_check_record, AnOnlineThatIsNeither0Nor1) {
    write.u8(at_device(1, area_offset::online), 0);
    EXPECT_THAT(rules(), IsEmpty());
    write.u8(at_device(1, area_offset::online), 2);
    EXPECT_THAT(rules(), ElementsAre("device-online-value"));
}

TEST_F(area_check_record, AReferenceToADeviceThatCannotExist) {
    write.i32(at_ref(1, area_offset::dev), 256);
    EXPECT_THAT(rules(), ElementsAre("ref-device-out-of-range"));
    write.i32(at_ref(1, area_offset::dev), -1);
    EXPECT_THAT(rules(), ElementsAre("ref-device-out-of-range"));
}

TEST_F(area_check_record, AReferenceLeftOverFromADeviceIsTolerated) {
    write.i32(at_ref(1, area_offset::dev), 5);
    EXPECT_THAT(rules(), ElementsAre("ref-device-not-registered"));
    EXPECT_EQ(class_of(findings(), "ref-device-not-registered"), finding_class::tolerated);
}

TEST_F(area_check_record, TwoReferencesToADevice) {
    write.i32(at_ref(1, area_offset::dev), 0);
    EXPECT_THAT(rules(), ElementsAre("ref-device-twice"));
}

TEST_F(area_check_record, NotesChunksThatAnOnlineDeviceDoesNotSee) {
    const auto missing = [](int chunk) {
        return Contains(AllOf(Field(&finding::rule, "chunk-misses-device"),
                              Field(&finding::cls, finding_class::note),
                              Field(&finding::where, place{area_list::chunks, chunk})));
    };
    EXPECT_THAT(findings(), missing(low));
    EXPECT_THAT(findings(), Not(missing(middle)));
    write.u8(at_device(0, area_offset::online), 0);
    write.u8(at_device(1, area_offset::online), 0);
    EXPECT_THAT(findings(), IsEmpty());
}

} // namespace

} // namespace area_check_record_test
