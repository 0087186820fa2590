// That the model test can fail: planted differences are found, shortened and printed so that they
// can be played again.

#include "comparison.hpp"
#include "generator.hpp"
#include "image.hpp"
#include "real_machine.hpp"
#include "shrink.hpp"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using model::area_part;
using model::outcome;

const outcome usual{"0x1000", 0, "tarvo: Device not registered\n", {"sysfs open w", "sysfs close"}};

constexpr uint64_t area_file_bytes = 70131712;

/// A built area with a chunk that is mapped for one device.
model::shared_area small_area() {
    model::shared_area area;
    area.chunks.push_back({area.take_chunk(), "__HEAD", 0x1000, 0, "", {}});
    area.chunks.push_back({area.take_chunk(), "__TAIL", 0x9000, 0, "", {}});
    area.file_bytes = area_file_bytes;
    area.built = true;
    model::chunk one{area.take_chunk(), "rx_ring", 0x1000, 0x2000, "me", model::ref_list{}};
    one.devs->on_list.push_back({one.devs->free.front(), 0});
    one.devs->free.pop_front();
    area.chunks.insert(area.chunks.begin() + 1, one);
    area.devices.push_back({area.free_devices.front(), 0, 3, 0, true});
    area.free_devices.pop_front();
    return area;
}

/// What is reported when one byte of that area is another one.
std::string report_of_planted_byte(size_t offset, area_part part) {
    model::image expected;
    expected.show(small_area());
    std::vector<uint8_t> seen(expected.bytes().begin(), expected.bytes().end());
    seen.at(offset) ^= 0x40U;
    return model::difference_of(small_area(), expected, seen, part).value_or("nothing");
}

model::script script_of(const std::vector<std::string>& lines) {
    model::script made{{"simulation", "", 1}, {}};
    std::ranges::transform(lines, std::back_inserter(made.steps), model::parse_step);
    return made;
}

bool holds(const model::script& all, const std::string& line) {
    return std::ranges::count(all.steps, model::parse_step(line)) != 0;
}

TEST(model_comparison, SeesAnotherReplyErrorLogAndEnd) {
    EXPECT_FALSE(model::difference_of(usual, usual));
    outcome seen = usual;
    seen.reply = "0x2000";
    EXPECT_EQ(model::difference_of(usual, seen), "reply\n  expected: 0x1000\n  seen:     0x2000");
    seen = usual;
    seen.error_text += "\n";
    EXPECT_TRUE(model::difference_of(usual, seen)->starts_with("standard error"));
    seen = usual;
    seen.events.pop_back();
    EXPECT_TRUE(model::difference_of(usual, seen)->starts_with("the driver's log"));
    seen = usual;
    std::ranges::reverse(seen.events);
    EXPECT_TRUE(model::difference_of(usual, seen)->starts_with("the driver's log"));
    seen = usual;
    seen.signal = SIGABRT;
    EXPECT_TRUE(model::difference_of(usual, seen)->starts_with("the client"));
}

TEST(model_comparison, SeesOneOtherByteAndNamesItsField) {
    const auto report = [](size_t offset) {
        return report_of_planted_byte(offset, area_part::what_changes);
    };
    EXPECT_EQ(report(0), "shared area, byte 0 (initialized): expected 0x1, seen 0x41");
    EXPECT_NE(report(4).find("(chunks[0].next)"), std::string::npos);
    EXPECT_NE(report(4 + 2 * 4280 + 9).find("(chunks[2].name)"), std::string::npos);
    EXPECT_NE(report(4 + 2 * 4280 + 172 + 12).find("(chunks[2].devs[0].dev)"), std::string::npos);
    EXPECT_NE(report(4 + 2 * 4280 + 4276).find("(chunks[2].devs._free)"), std::string::npos);
    EXPECT_NE(report(70123532).find("(chunks._free)"), std::string::npos);
    EXPECT_NE(report(70123536 + 24).find("(devices[0].online)"), std::string::npos);
    EXPECT_NE(report(70130712).find("(devices._free)"), std::string::npos);
    EXPECT_NE(report(70131711).find("(after the content)"), std::string::npos);
}

TEST(model_comparison, SeesBytesThatNothingTouchesOnlyWhenItLooksAtAll) {
    const size_t untouched = 4 + 9999 * 4280;
    EXPECT_EQ(report_of_planted_byte(untouched, area_part::what_changes), "nothing");
    EXPECT_NE(report_of_planted_byte(untouched, area_part::all).find("(chunks[9999].next)"),
              std::string::npos);
}

TEST(model_comparison, SeesWhatIsInAnAreaThatIsNotBuilt) {
    model::image expected;
    model::shared_area sized;
    sized.file_bytes = 100;
    std::vector<uint8_t> seen(100);
    EXPECT_FALSE(model::difference_of(sized, expected, seen, area_part::what_changes));
    seen.back() = 1;
    EXPECT_TRUE(model::difference_of(sized, expected, seen, area_part::what_changes));
}

TEST(model_comparison, SeesAnAreaThatIsMissingOrTooShort) {
    model::image expected;
    EXPECT_TRUE(model::difference_of(small_area(), expected, {}, area_part::all));
    const std::vector<uint8_t> too_short(100);
    EXPECT_TRUE(model::difference_of(small_area(), expected, too_short, area_part::all));
    EXPECT_FALSE(model::difference_of(model::shared_area{}, expected, {}, area_part::all));
}

TEST(model_comparison, LeavesOutOnlyWhatTheSourceIsFreeToChange) {
    EXPECT_EQ(model::without_what_is_free(
                  "before\ntarvo-client: tarvo:77: int tarvo_free(const char*): Assertion `len' "
                  "failed.\n"),
              "before\ntarvo: Assertion `len' failed.\n");
    EXPECT_EQ(model::without_what_is_free("tarvo-client: ./ArrayBackedList.hpp:32: T* next(): "
                                          "Assertion `cur->allocated' failed.\n"),
              "./ArrayBackedList.hpp:32: Assertion `cur->allocated' failed.\n");
    EXPECT_EQ(model::without_what_is_free(
                  "tarvo-client: tarvo:982: int tarvo_iommu_map(uint): Assertion `x' failed.\n"),
              "tarvo:982: int tarvo_iommu_map(uint): Assertion `x' failed.\n");
}

TEST(model_shrinking, KeepsOnlyTheStepsThatAreNeeded) {
    std::vector<std::string> lines(100);
    for (size_t i = 0; i < lines.size(); i++) {
        lines[i] = "0 find " + std::to_string(i);
    }
    const auto fails = [](const model::script& tried) {
        return holds(tried, "0 find 13") && holds(tried, "0 find 77");
    };
    const model::script shortest = model::shrink(script_of(lines), fails, 1000);
    EXPECT_EQ(model::shown(shortest), "world simulation\nprocesses 1\n0 find 13\n0 find 77\n");
}

TEST(model_script, IsReadAsItWasPrinted) {
    model::script written = script_of({R"(0 alloc "two \"words\\" 0x1000 "")", "0 free @null",
                                       R"(* rules "op=map,errno=EIO" "listing=empty")"});
    written.where = {"cma", "100000000-10002ffff", 3};
    written.steps.front().words.front() = "line\nbreak";
    const temporary_folder folder;
    const std::filesystem::path path = folder.path() / "script";
    std::ofstream(path) << "# a remark\n" << model::shown(written);
    const model::script read = model::read_script(path);
    EXPECT_EQ(read.steps, written.steps);
    EXPECT_EQ(model::shown(read), model::shown(written));
}

/// Trace records of failures are nothing that the model knows of: they stand for a library that
/// says more than it should.
class planted_difference : public testing::Test {
  public:
    planted_difference() { setenv("ZUL_TRACE", "tarvo=3", 1); }
    ~planted_difference() override { unsetenv("ZUL_TRACE"); }
};

TEST_F(planted_difference, IsFoundShortenedAndPlayedAgain) {
    const model::script failing =
        script_of({"0 alloc rx_ring 0x1000 me", "0 register 0 3 0", "0 alloc tx 0x3000 me",
                   "0 free tx", "0 alloc tx 0x30000000 me", "0 limits", "0 free rx_ring"});
    const model::verdict first = model::play(failing.where, model::steps_of(failing));
    ASSERT_TRUE(first.found);
    EXPECT_EQ(first.found->step, 4U);
    EXPECT_TRUE(first.found->text.starts_with("standard error"));

    const auto fails = [](const model::script& tried) {
        return model::play(tried.where, model::steps_of(tried)).found.has_value();
    };
    const model::script shortest = model::shrink(first.played, fails, 50);
    EXPECT_EQ(model::shown(shortest), "world simulation\nprocesses 1\n0 alloc tx 0x30000000 me\n");
}

TEST(model_generator, MakesTheSameStepsOfTheSameSeed) {
    for (const world& where : all_worlds()) {
        model::generator first(7);
        model::generator second(7);
        model::prediction now(model::choose_playground(where.name, 7, 2));
        for (int i = 0; i < 300; i++) {
            const model::step made = first.next(now);
            ASSERT_EQ(made, second.next(now));
            ASSERT_TRUE(now.is_applicable(made));
            now.carry_out(made);
        }
    }
}

} // namespace
