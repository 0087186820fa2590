#include "area_fixture.hpp"

#include <ctime>
#include <random>

namespace area_random_test {

// Any bytes at all: checked and planned for without a fault, in bounded time. Each case prints its
// seed when it fails.

namespace {

using tarvoctl::check_area;
using tarvoctl::plan_repair;
using tarvoctl::repair_edit;
using tarvoctl::repair_plan;
using testing::IsEmpty;
using testing::IsSubsetOf;

/// Generous, for sanitizers and slow machines: what it rules out is a time that grows with the
/// square of the table, or for ever.
constexpr double seconds_allowed = 60;

class processor_time {
  public:
    double seconds() const { return static_cast<double>(std::clock() - _start) / CLOCKS_PER_SEC; }

  private:
    std::clock_t _start = std::clock();
};

/// Checks, plans, repairs and checks again. Returns what is found at last.
std::vector<tarvoctl::finding> check_and_repair(fresh_area& area) {
    const processor_time time;
    const auto found = check_area(area.record());
    EXPECT_LT(found.size(), 2000U);
    const repair_plan plan = plan_repair(area.record());
    apply(plan, area.record());
    auto left = check_area(area.record());
    EXPECT_LT(time.seconds(), seconds_allowed);
    std::printf("%zu findings, %zu edits, %zu doubts in %.3f s\n", found.size(), plan.edits.size(),
                plan.doubts.size(), time.seconds());
    return left;
}

void fill_at_random(std::span<uint8_t> bytes, unsigned seed) {
    std::mt19937_64 random(seed);
    for (size_t i = 0; i + sizeof(uint64_t) <= bytes.size(); i += sizeof(uint64_t)) {
        const uint64_t value = random();
        std::memcpy(bytes.data() + i, &value, sizeof value);
    }
}

TEST(area_random, BytesAreChecked) {
    for (unsigned seed = 0; seed < 4; ++seed) {
        SCOPED_TRACE(seed);
        fresh_area area;
        fill_at_random(area.bytes(), seed);
        EXPECT_TRUE(has_class(check_and_repair(area), tarvoctl::finding_class::broken));
    }
}

TEST(area_random, BytesThatAreAllTheSameAreChecked) {
    for (const int value : {0x01, 0x7f, 0x80, 0xff}) {
        SCOPED_TRACE(value);
        fresh_area area;
        std::fill(area.bytes().begin(), area.bytes().end(), static_cast<uint8_t>(value));
        EXPECT_TRUE(has_class(check_and_repair(area), tarvoctl::finding_class::broken));
    }
}

TEST(area_random, BytesBetweenSoundSentinelsAreChecked) {
    for (unsigned seed = 0; seed < 2; ++seed) {
        SCOPED_TRACE(seed);
        fresh_area sound;
        sound.build(0, 0xfffff000);
        fresh_area area;
        fill_at_random(area.bytes(), seed);
        const auto keep = [&](size_t offset, size_t bytes) {
            std::copy_n(sound.bytes().data() + offset, bytes, area.bytes().data() + offset);
        };
        keep(area_offset::chunk(0), area_offset::chunk(2) - area_offset::chunk(0));
        keep(area_offset::chunks_head, 12);
        EXPECT_TRUE(has_class(check_and_repair(area), tarvoctl::finding_class::tolerated));
    }
}

/// As many chunks as there can be.
void fill_table(fresh_area& area) {
    area.build(0x1000, 0x2a800000);
    for (int chunk = 2; chunk < 16384; ++chunk) {
        const int left = chunk == 2 ? 0 : chunk - 1;
        area.add_chunk(left, ("chunk" + std::to_string(chunk)).c_str(),
                       0x1000 * static_cast<uint64_t>(chunk), 0x1000);
    }
}

TEST(area_random, AFullTableWithThousandsOfRandomDeviceListsIsChecked) {
    fresh_area area;
    fill_table(area);
    for (int chunk = 2; chunk < 16384; chunk += 4) {
        const size_t devs = area_offset::chunk(chunk) + area_offset::devs;
        fill_at_random(area.bytes().subspan(devs, 4096), static_cast<unsigned>(chunk));
    }
    check_and_repair(area);
}

TEST(area_random, AFullTableWhoseEndsAreCutOffIsPutBack) {
    fresh_area area;
    fill_table(area);
    area.writer().i32(area_offset::chunk(0) + area_offset::next, -1);
    area.writer().i32(area_offset::chunk(1) + area_offset::prev, -1);
    EXPECT_THAT(serious(check_and_repair(area)), IsEmpty());
    EXPECT_EQ(area.view().chunks().size(), 16384U);
}

TEST(area_random, AFullTableThatOverlapsIsChecked) {
    fresh_area area;
    fill_table(area);
    const area_writer write = area.writer();
    write.i32(area_offset::chunk(0) + area_offset::next, -1);
    write.i32(area_offset::chunk(1) + area_offset::prev, -1);
    for (int chunk = 2; chunk < 16384; ++chunk) {
        write.u64(area_offset::chunk(chunk) + area_offset::pa, 0x1000);
    }
    check_and_repair(area);
}

/// Rules on what records say: no link, flag or end says how to repair them. The order is among them
/// where a chunk lies outside the region.
const std::set<std::string>& rules_of_records() {
    static const std::set<std::string> rules{"area-padding-not-zero",
                                             "chunk-address-not-page",
                                             "chunk-creator-empty",
                                             "chunk-creator-not-terminated",
                                             "chunk-misses-device",
                                             "chunk-name-empty",
                                             "chunk-name-not-terminated",
                                             "chunk-name-twice",
                                             "chunk-order",
                                             "chunk-outside-region",
                                             "chunk-overlap",
                                             "chunk-padding-not-zero",
                                             "chunk-sentinel-devices",
                                             "chunk-size-not-pages",
                                             "device-address-twice",
                                             "device-padding-not-zero",
                                             "ref-device-not-registered",
                                             "ref-padding-not-zero"};
    return rules;
}

class area_mutation : public area_of_three {
  protected:
    /// A place where a list of the small area says something.
    size_t somewhere() {
        const size_t element = random() % 7;
        switch (random() % 5) {
        case 0:
            return area_offset::chunk(static_cast<int>(element)) + word_below(172);
        case 1:
            return area_offset::device(static_cast<int>(element)) + word_below(28);
        case 2:
            return area_offset::ref(middle, static_cast<int>(element)) + word_below(16);
        case 3:
            return at(middle, area_offset::devs_head) + word_below(12);
        default:
            return (random() % 2 == 0 ? area_offset::chunks_head : area_offset::devices_head) +
                   word_below(12);
        }
    }

    uint32_t something() {
        switch (random() % 4) {
        case 0:
            return static_cast<uint32_t>(random());
        case 1:
            return ~uint32_t{0};
        default:
            return static_cast<uint32_t>(random() % 8);
        }
    }

    size_t word_below(size_t bytes) { return random() % (bytes / 4) * 4; }

    void expect_repaired() {
        const repair_plan plan = plan_repair(area.record());
        size_t end = 0;
        std::vector<std::pair<size_t, size_t>> ranges;
        for (const repair_edit& edit : plan.edits) {
            ranges.emplace_back(edit.offset, edit.before.size());
        }
        std::sort(ranges.begin(), ranges.end());
        for (const auto& [offset, bytes] : ranges) {
            EXPECT_GE(offset, end);
            end = offset + bytes;
        }
        apply(plan, area.record());
        if (plan.doubts.empty()) {
            EXPECT_THAT(rules_of(findings()), IsSubsetOf(rules_of_records()));
            EXPECT_THAT(plan_repair(area.record()).edits, IsEmpty());
        }
    }

    std::mt19937_64 random;
};

TEST_F(area_mutation, IsCheckedAndRepaired) {
    const std::vector<uint8_t> sound(area.bytes().begin(), area.bytes().end());
    for (unsigned seed = 0; seed < 150 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        random.seed(seed);
        std::copy(sound.begin(), sound.end(), area.bytes().begin());
        for (size_t left = 1 + random() % 5; left > 0; --left) {
            write.u32(somewhere(), something());
        }
        check_area(area.record());
        expect_repaired();
    }
}

} // namespace

} // namespace area_random_test
