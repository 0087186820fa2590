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

TEST_F(area_check_record, FindsWhatIsWrongWithTheAreaAndItsBounds) {
    expect_found({
        {"an area in use that says it is not built",
         [&] { write.u8(area_offset::initialized, 0); },
         {"area-built-flag-lost"},
         {{"area-built-flag-lost", finding_class::broken, {area_list::area}}}},
        {"an initialized that is neither 0 nor 1",
         [&] { write.u8(area_offset::initialized, 3); },
         {"area-flag-value"}},
        {"bytes between the fields",
         [&] {
             write.u8(2, 1);
             write.u8(at(low, 59), 1);
             write.u8(at_device(0, 27), 1);
             write.u8(at_ref(1, 9), 1);
         },
         {"area-padding-not-zero", "chunk-padding-not-zero", "device-padding-not-zero",
          "ref-padding-not-zero"},
         {{"area-padding-not-zero", finding_class::tolerated, {area_list::area}},
          {"chunk-padding-not-zero", finding_class::tolerated, {area_list::chunks, low}},
          {"device-padding-not-zero", finding_class::tolerated, {area_list::devices, 0}},
          {"ref-padding-not-zero", finding_class::tolerated, {area_list::refs, middle, 1}}}},
        {"no sentinels",
         [&] {
             write.i32(area_offset::chunks_head, -1);
             write.i32(area_offset::chunks_tail, -1);
         },
         {"chunk-allocated-on-no-list", "chunk-no-sentinels"}},
        {"a first chunk of another name",
         [&] { write.text(at(0, area_offset::name), "__HERD"); },
         {"chunk-head-sentinel"}},
        {"a first chunk with a size",
         [&] { write.u32(at(0, area_offset::size), 0x1000); },
         {"chunk-head-sentinel", "chunk-overlap"}},
        {"a last chunk of another name",
         [&] { write.text(at(1, area_offset::name), ""); },
         {"chunk-tail-sentinel"}},
        {"a sentinel with devices",
         [&] { write.i32(at(1, area_offset::devs_head), -1); },
         {"chunk-sentinel-devices"},
         {{"chunk-sentinel-devices", finding_class::tolerated, {area_list::chunks, 1}}}},
        {"a region that ends where it begins",
         [&] { write.u64(at(1, area_offset::pa), first_pa); },
         {"chunk-order", "chunk-outside-region", "chunk-overlap", "chunk-region-empty"}},
    });
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

TEST_F(area_check_record, FindsWhatIsWrongWithAChunk) {
    check_options small_pages;
    small_pages.page_bytes = 0x800;
    check_options under_cma;
    under_cma.cma = true;
    const auto overlap = [&] { write.u32(at(middle, area_offset::size), 0x3000); };
    expect_found({
        {"a name without a terminator",
         // The text's terminator goes into the byte after the field.
         [&] { write.text(at(low, area_offset::name), std::string(50, 'x')); },
         {"chunk-name-not-terminated"}},
        {"no name", [&] { write.u8(at(low, area_offset::name), 0); }, {"chunk-name-empty"}},
        {"a creator as long as can be",
         [&] { write.text(at(low, area_offset::creator), std::string(99, 'x')); },
         {}},
        {"a creator without a terminator",
         [&] {
             write.text(at(low, area_offset::creator), std::string(99, 'x'));
             write.u8(at(low, area_offset::creator + 99), 'x');
         },
         {"chunk-creator-not-terminated"}},
        {"no creator",
         [&] { write.u8(at(low, area_offset::creator), 0); },
         {"chunk-creator-empty"}},
        {"a size of nothing",
         [&] { write.u32(at(low, area_offset::size), 0); },
         {"chunk-size-zero"}},
        {"a size that is not whole pages",
         [&] { write.u32(at(low, area_offset::size), 0x800); },
         {"chunk-size-not-pages"}},
        {"the same size of smaller pages",
         [&] { write.u32(at(low, area_offset::size), 0x800); },
         {},
         {},
         small_pages},
        {"an address within a page",
         [&] { write.u64(at(low, area_offset::pa), 0x1800); },
         {"chunk-address-not-page"},
         {{"chunk-address-not-page", finding_class::tolerated, {area_list::chunks, low}}}},
        {"a chunk that ends after the region",
         [&] { write.u32(at(high, area_offset::size), region_bytes); },
         {"chunk-outside-region", "chunk-overlap"}},
        {"a chunk whose end would wrap",
         [&] {
             write.u64(at(high, area_offset::pa), ~uint64_t{0xfff});
             write.u32(at(high, area_offset::size), 0xfffff000);
         },
         {"chunk-order", "chunk-outside-region", "chunk-overlap"}},
        {"a chunk before its predecessor",
         [&] { write.u64(at(high, area_offset::pa), 0x2000); },
         {"chunk-order", "chunk-overlap"},
         {{"chunk-order", finding_class::broken, {area_list::chunks, high}}}},
        {"chunks that overlap",
         overlap,
         {"chunk-overlap"},
         {{"chunk-overlap", finding_class::broken, {area_list::chunks, high}}}},
        {"chunks that overlap under CMA",
         overlap,
         {"chunk-overlap-under-cma"},
         {{"chunk-overlap-under-cma", finding_class::tolerated, {area_list::chunks, high}}},
         under_cma},
    });
}

TEST_F(area_check_record, FindsWhatIsWrongWithADeviceOrAReference) {
    expect_found({
        {"two devices of a bus", [&] { write.i32(at_device(1, area_offset::bus), 3); }, {}},
        {"a device that is registered twice",
         [&] {
             write.i32(at_device(1, area_offset::bus), 3);
             write.i32(at_device(1, area_offset::devfn), 8);
         },
         {"device-address-twice"}},
        {"a device that is offline", [&] { write.u8(at_device(1, area_offset::online), 0); }, {}},
        {"an online that is neither 0 nor 1",
         [&] { write.u8(at_device(1, area_offset::online), 2); },
         {"device-online-value"}},
        {"a reference above the last device",
         [&] { write.i32(at_ref(1, area_offset::dev), 256); },
         {"ref-device-out-of-range"}},
        {"a reference below the first device",
         [&] { write.i32(at_ref(1, area_offset::dev), -1); },
         {"ref-device-out-of-range"}},
        {"a reference left over from a device",
         [&] { write.i32(at_ref(1, area_offset::dev), 5); },
         {"ref-device-not-registered"},
         {{"ref-device-not-registered", finding_class::tolerated, {area_list::refs, middle, 1}}}},
        {"two references to a device",
         [&] { write.i32(at_ref(1, area_offset::dev), 0); },
         {"ref-device-twice"}},
    });
}

TEST_F(area_check_record, ANameOfTwoChunksIsTolerated) {
    write.text(at(high, area_offset::name), "low");
    EXPECT_THAT(rules(), ElementsAre("chunk-name-twice"));
    EXPECT_THAT(findings(), Contains(AllOf(Field(&finding::cls, finding_class::tolerated),
                                           Field(&finding::where, place{area_list::chunks, high}),
                                           Field(&finding::text, HasSubstr("\"low\"")))));
}

TEST_F(area_check_record, AChunkThatHoldsMoreThanItsSuccessor) {
    write.u32(at(low, area_offset::size), 0x8000);
    const auto found = findings();
    EXPECT_EQ(std::count_if(found.begin(), found.end(),
                            [](const finding& one) { return one.rule == "chunk-overlap"; }),
              2);
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
