#include "area_fixture.hpp"

namespace area_repair_test {

// What the repair makes of damage, seen through the decoder that knows offsets only.

namespace {

using tarvoctl::area_list;
using tarvoctl::place;
using tarvoctl::plan_repair;
using tarvoctl::repair_doubt;
using tarvoctl::repair_edit;
using tarvoctl::repair_plan;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class area_repair : public area_of_three {
  protected:
    repair_plan repair() {
        repair_plan plan = plan_repair(area.record());
        apply(plan, area.record());
        return plan;
    }

    /// Repairs and expects that all is well and nothing is left to a person.
    void repair_fully() {
        EXPECT_THAT(repair().doubts, IsEmpty());
        EXPECT_THAT(serious(findings()), IsEmpty());
        EXPECT_THAT(area_breaches(area.view()), IsEmpty());
    }

    std::vector<std::string> names() {
        std::vector<std::string> all;
        for (const area_chunk& chunk : area.view().chunks()) {
            all.push_back(chunk.name);
        }
        return all;
    }

    std::vector<int> devices_of(int chunk) {
        std::vector<int> all;
        for (const area_ref& ref : area.view().refs(chunk)) {
            all.push_back(ref.dev);
        }
        return all;
    }

    static auto all_three() { return ElementsAre("__HEAD", "low", "middle", "high", "__TAIL"); }
};

TEST_F(area_repair, LeavesASoundAreaAlone) {
    const repair_plan plan = repair();
    EXPECT_THAT(plan.edits, IsEmpty());
    EXPECT_THAT(plan.doubts, IsEmpty());
}

TEST(area_repair_unbuilt, LeavesAnAreaToItsNextBuilder) {
    fresh_area area;
    EXPECT_THAT(plan_repair(area.record()).edits, IsEmpty());
    area.build(0x1000, 0x100000);
    area.writer().u8(area_offset::initialized, 0);
    area.writer().i32(area_offset::chunks_tail, 77);
    const repair_plan plan = plan_repair(area.record());
    EXPECT_THAT(plan.edits, IsEmpty());
    EXPECT_THAT(plan.doubts, IsEmpty());
}

TEST_F(area_repair, SetsTheFlagOfAnAreaInUse) {
    for (const uint8_t value : {uint8_t{0}, uint8_t{2}}) {
        write.u8(area_offset::initialized, value);
        EXPECT_THAT(repair().edits, SizeIs(1));
        EXPECT_EQ(area.view().initialized(), 1);
    }
}

TEST_F(area_repair, RebuildsEveryBackLink) {
    for (int chunk = 0; chunk < 5; ++chunk) {
        write.i32(at(chunk, area_offset::prev), 12345);
    }
    write.i32(at_device(0, area_offset::prev), -7);
    write.i32(at_ref(1, area_offset::prev), 99);
    repair_fully();
    EXPECT_THAT(names(), all_three());
    EXPECT_THAT(devices_of(middle), ElementsAre(0, 1));
}

TEST_F(area_repair, FindsTheChunksEndsByTheirNames) {
    write.i32(area_offset::chunks_head, 40000);
    write.i32(area_offset::chunks_tail, -1);
    repair_fully();
    EXPECT_THAT(names(), all_three());
}

TEST_F(area_repair, FollowsBackLinksWhereALinkIsLost) {
    write.i32(at(low, area_offset::next), -1);
    write.i32(at_device(0, area_offset::next), 200);
    write.i32(at_ref(0, area_offset::next), 17);
    repair_fully();
    EXPECT_THAT(names(), all_three());
    EXPECT_THAT(devices_of(middle), ElementsAre(0, 1));
    EXPECT_THAT(area.view().devices(), SizeIs(2));
}

TEST_F(area_repair, LosesNoChunkWhenBothWaysAreCut) {
    write.i32(at(low, area_offset::next), 16384);
    write.i32(at(high, area_offset::prev), 16384);
    repair_fully();
    EXPECT_THAT(names(), all_three());
}

TEST_F(area_repair, PutsBackChunksThatAreLinkedAmongThemselves) {
    write.i32(at(0, area_offset::next), high);
    repair_fully();
    EXPECT_THAT(names(), all_three());
    write.i32(at(0, area_offset::next), high);
    write.i32(at(high, area_offset::prev), 0);
    repair_fully();
    EXPECT_THAT(names(), all_three());
}

TEST_F(area_repair, PutsBackDevicesAfterAWrongTail) {
    area.add_device(0, 5, 0);
    area.add_device(0, 6, 0);
    write.i32(area_offset::devices_tail, 1);
    repair_fully();
    EXPECT_THAT(area.view().devices(),
                ElementsAre(Field(&area_device::bus, 3), Field(&area_device::bus, 4),
                            Field(&area_device::bus, 5), Field(&area_device::bus, 6)));
}

TEST_F(area_repair, FindsDevicesFromEitherEnd) {
    write.i32(area_offset::devices_head, -1);
    repair_fully();
    EXPECT_THAT(area.view().devices(), SizeIs(2));
    write.i32(area_offset::devices_tail, -1);
    repair_fully();
    EXPECT_THAT(area.view().devices(), SizeIs(2));
    write.i32(area_offset::devices_head, 999);
    repair_fully();
    EXPECT_THAT(area.view().devices(), SizeIs(2));
}

TEST_F(area_repair, MarksListedElementsAllocated) {
    write.u8(at(middle, area_offset::allocated), 0);
    write.u8(at_device(1, area_offset::allocated), 0);
    write.u8(at_device(0, area_offset::online), 9);
    repair_fully();
    EXPECT_THAT(names(), all_three());
    EXPECT_EQ(area.view().device(0).online, 1);
}

TEST_F(area_repair, MarksTheOnlyDeviceAllocatedAndTheOnlyReferenceToIt) {
    fresh_area other;
    other.build(first_pa, region_bytes);
    const int chunk = other.add_chunk(0, "ring", 0x1000, 0x1000);
    other.add_device(0, 3, 8);
    other.add_ref(chunk, 0);
    other.writer().u8(at_device(0, area_offset::allocated), 0);
    other.record().chunks._arr[chunk].devs._arr[0].allocated = 0;
    const repair_plan plan = plan_repair(other.record());
    EXPECT_THAT(plan.doubts, IsEmpty());
    apply(plan, other.record());
    EXPECT_THAT(other.view().devices(), ElementsAre(Field(&area_device::bus, 3)));
    EXPECT_THAT(other.view().refs(chunk), SizeIs(1));
    EXPECT_THAT(serious(tarvoctl::check_area(other.record(), {})), IsEmpty());
}

TEST_F(area_repair, LeavesADeviceToAPersonThatLostItsMarkAndItsLinks) {
    const auto doubts_device_1 = ElementsAre(
        AllOf(Field(&repair_doubt::where, place{area_list::devices, 1}),
              Field(&repair_doubt::why, HasSubstr("it is unknown whether it is registered"))));
    write.u8(at_device(1, area_offset::allocated), 0);
    write.i32(at_device(1, area_offset::prev), 9);
    EXPECT_THAT(repair().doubts, doubts_device_1);
    EXPECT_EQ(area.view().device(1).bus, 4);
}

TEST_F(area_repair, ForgetsNoDeviceForALinkToAFreeElement) {
    write.i32(at_device(1, area_offset::next), 7);
    repair_fully();
    EXPECT_THAT(area.view().devices(), SizeIs(2));
}

TEST_F(area_repair, GivesBackAChunkThatHoldsNoMemory) {
    write.u32(at(low, area_offset::size), 0);
    repair_fully();
    EXPECT_THAT(names(), ElementsAre("__HEAD", "middle", "high", "__TAIL"));
    EXPECT_EQ(area.view().free_chunks().front(), low);
}

TEST_F(area_repair, LeavesAChunkThatDevicesSeeToAPersonWithoutASize) {
    write.u32(at(middle, area_offset::size), 0);
    const repair_plan plan = repair();
    EXPECT_THAT(plan.edits, IsEmpty());
    EXPECT_THAT(plan.doubts,
                ElementsAre(AllOf(Field(&repair_doubt::where, place{area_list::chunks, middle}),
                                  Field(&repair_doubt::why, HasSubstr("size is 0")))));
}

TEST_F(area_repair, SortsTheChunks) {
    write.u64(at(low, area_offset::pa), 0x9000);
    repair_fully();
    EXPECT_THAT(names(), ElementsAre("__HEAD", "middle", "high", "low", "__TAIL"));
}

TEST_F(area_repair, RebuildsAFreeChainAndKeepsWhatIsSound) {
    write.i32(at(7, area_offset::next), middle);
    repair_fully();
    EXPECT_THAT(area.view().free_chunks(), SizeIs(16379));
    write.i32(area_offset::devices_free, -1);
    write.i32(at_ref(9, area_offset::next), 4);
    repair_fully();
    EXPECT_THAT(area.view().free_devices(), SizeIs(254));
    EXPECT_THAT(area.view().free_refs(middle), SizeIs(254));
}

TEST_F(area_repair, ClearsWhatIsLeftInFreeElements) {
    write.u32(at(9, area_offset::size), 0x1000);
    write.u8(at(9, area_offset::devs), 5);
    const repair_plan plan = repair();
    EXPECT_THAT(plan.edits,
                ElementsAre(AllOf(Field(&repair_edit::where, place{area_list::chunks, 9}),
                                  Field(&repair_edit::offset, at(9, area_offset::size) + 1),
                                  testing::Property(&repair_edit::zeroes, true))));
    EXPECT_THAT(area.view().chunk_bytes(9).subspan(4), Each(0));
    EXPECT_THAT(serious(findings()), IsEmpty());
}

TEST_F(area_repair, BuildsAListAnewThatIsDamagedAllOver) {
    for (int ref = 2; ref < 256; ++ref) {
        write.i32(at_ref(ref, area_offset::dev), -1);
    }
    const repair_plan plan = plan_repair(area.record());
    EXPECT_THAT(plan.edits,
                ElementsAre(Field(&repair_edit::where, place{area_list::refs, middle})));
    repair_fully();
    EXPECT_THAT(devices_of(middle), ElementsAre(0, 1));
}

TEST_F(area_repair, DropsReferencesThatMeanNothing) {
    area.add_device(0, 5, 0);
    area.add_ref(middle, 2);
    write.i32(at_ref(0, area_offset::dev), 256);
    write.i32(at_ref(2, area_offset::dev), 1);
    repair_fully();
    EXPECT_THAT(devices_of(middle), ElementsAre(1));
}

TEST_F(area_repair, KeepsReferencesLeftOverFromADevice) {
    area.record().devices.erase(&area.record().devices._arr[0]);
    EXPECT_THAT(repair().edits, IsEmpty());
    EXPECT_THAT(devices_of(middle), ElementsAre(0, 1));
}

TEST_F(area_repair, LeavesTheChunksToAPersonWithoutASentinel) {
    write.text(at(1, area_offset::name), "gone");
    write.i32(at(low, area_offset::prev), 1000);
    write.i32(at_device(1, area_offset::prev), 1000);
    const repair_plan plan = repair();
    EXPECT_THAT(plan.doubts, ElementsAre(Field(&repair_doubt::why, HasSubstr("__TAIL"))));
    EXPECT_THAT(plan.edits, ElementsAre(Field(&repair_edit::where, place{area_list::devices, 1})));
}

TEST_F(area_repair, LeavesTheChunksToAPersonWithTwoSentinels) {
    write.i32(area_offset::chunks_head, -1);
    write.text(at(low, area_offset::name), "__HEAD");
    write.u32(at(low, area_offset::size), 0);
    const repair_plan plan = repair();
    EXPECT_THAT(plan.doubts, SizeIs(1));
    EXPECT_THAT(plan.edits, IsEmpty());
}

TEST_F(area_repair, LeavesTheChunksToAPersonWithoutARegion) {
    write.u64(at(1, area_offset::pa), 0);
    EXPECT_THAT(repair().doubts, ElementsAre(Field(&repair_doubt::why, HasSubstr("region"))));
}

TEST_F(area_repair, LeavesAFilledChunkAloneThatItCannotPlace) {
    write.i32(at(0, area_offset::next), 16384);
    write.i32(at(1, area_offset::prev), 16384);
    for (const int chunk : {low, middle, high}) {
        write.i32(at(chunk, area_offset::next), -1);
        write.i32(at(chunk, area_offset::prev), -1);
    }
    EXPECT_THAT(repair().doubts, SizeIs(3));
    EXPECT_EQ(area.view().chunk(middle).name, "middle");
    EXPECT_EQ(area.view().chunk(middle).allocated, 1);
    EXPECT_THAT(area.view().free_chunks(), Not(Contains(middle)));
}

TEST_F(area_repair, DoesNotPutBackWhatWouldOverlap) {
    write.i32(at(0, area_offset::next), high);
    write.i32(at(high, area_offset::prev), 0);
    write.u32(at(low, area_offset::size), 0x4000);
    EXPECT_THAT(repair().doubts,
                ElementsAre(Field(&repair_doubt::where, place{area_list::chunks, middle})));
    EXPECT_THAT(names(), ElementsAre("__HEAD", "low", "high", "__TAIL"));
}

TEST_F(area_repair, CanItselfBeInterruptedAtEveryEdit) {
    area.record().chunks.remove(&area.record().chunks._arr[middle]);
    area.record().chunks.alloc();
    write.i32(at(0, area_offset::prev), 500);
    write.i32(area_offset::devices_head, -1);
    const std::vector<uint8_t> damaged(area.bytes().begin(), area.bytes().end());
    const repair_plan plan = plan_repair(area.record());
    ASSERT_GT(plan.edits.size(), 5U);
    for (size_t made = 0; made <= plan.edits.size(); ++made) {
        SCOPED_TRACE(made);
        std::copy(damaged.begin(), damaged.end(), area.bytes().begin());
        repair_plan part;
        part.edits.assign(plan.edits.begin(),
                          plan.edits.begin() + static_cast<std::ptrdiff_t>(made));
        apply(part, area.record());
        repair_fully();
        EXPECT_THAT(names(), ElementsAre("__HEAD", "low", "high", "__TAIL"));
    }
}

} // namespace

} // namespace area_repair_test
