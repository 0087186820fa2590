#include "stderr_of.hpp"
#include "zul/Trace.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <ostream>
#include <sstream>
#include <string>

namespace zul_test {

// The stand-in for the support library: which records the environment enables, and what they are.

namespace {

using level = Zul::TraceFacility::FacilityLevel;

Zul::TraceHandle handle_of(const std::string& facility) {
    return {Zul::String(facility.data(), static_cast<unsigned>(facility.size())), false};
}

class zul : public testing::Test {
  protected:
    ~zul() override { unsetenv("ZUL_TRACE"); }

    static void set(const char* value) { setenv("ZUL_TRACE", value, 1); }

    /// One record of the facility "tarvo", if enabled, the way the library makes them.
    void trace(const std::string& text, int at = 5) {
        Zul::TraceHandle handle = handle_of("tarvo");
        Zul::TraceHelper* helper =
            Zul::TraceHelper::createIfEnabled(handle, level{at}, storage.data());
        const Zul::EnsureTraceHelperIsDestroyed ensure(helper);
        if (helper != nullptr) {
            helper->stream() << text;
            helper->trace("tarvo", 123, "tarvo_map");
        }
    }

    alignas(Zul::TraceHelper) std::array<std::byte, sizeof(Zul::TraceHelper)> storage{};
};

/// A value of ZUL_TRACE, and the highest level of 0 to 7 it enables for "tarvo"; -1 for none.
struct setting {
    const char* value;
    int enabled_up_to;
};

std::ostream& operator<<(std::ostream& stream, const setting& each) {
    return stream << '"' << each.value << '"';
}

class zul_setting : public testing::TestWithParam<setting> {
  protected:
    ~zul_setting() override { unsetenv("ZUL_TRACE"); }
};

TEST_P(zul_setting, EnablesTheseLevelsAndNoHigherOnes) {
    setenv("ZUL_TRACE", GetParam().value, 1);
    const Zul::TraceHandle handle = handle_of("tarvo");
    for (int each = 0; each <= 7; ++each) {
        EXPECT_EQ(handle.enabled(level{each}), each <= GetParam().enabled_up_to) << each;
    }
}

INSTANTIATE_TEST_SUITE_P(for_every_facility, zul_setting,
                         testing::Values(setting{"0", 0}, setting{"3", 3}, setting{"5", 5},
                                         setting{"6", 6}, setting{"100", 7}));

INSTANTIATE_TEST_SUITE_P(for_one_facility, zul_setting,
                         testing::Values(setting{"tarvo=3", 3}, setting{"tarvo=5", 5},
                                         setting{"tarvo=6", 6}, setting{"other=5", -1},
                                         setting{"tarv=5", -1}, setting{"tarvos=5", -1},
                                         setting{"Tarvo=5", -1}, setting{"=5", -1}));

INSTANTIATE_TEST_SUITE_P(several, zul_setting,
                         testing::Values(setting{"other=6,tarvo=5", 5},
                                         setting{"tarvo=5,other=6", 5}, setting{"3,tarvo=5", 5},
                                         setting{"tarvo=3,5", 5}, setting{"tarvo=5,3", 5},
                                         setting{",,tarvo=5,", 5}, setting{"nonsense,tarvo=5", 5},
                                         setting{"other=6,another=6", -1}));

INSTANTIATE_TEST_SUITE_P(nonsense, zul_setting,
                         testing::Values(setting{"", -1}, setting{",", -1}, setting{"tarvo", -1},
                                         setting{"tarvo=", -1}, setting{"tarvo=five", -1},
                                         setting{"tarvo=5x", -1}, setting{"5x", -1},
                                         setting{"tarvo=5=5", -1}, setting{"tarvo 5", -1},
                                         setting{"-1", -1}, setting{"99999999999999999999", -1}));

TEST_F(zul, TracesNothingWithoutTheVariable) {
    unsetenv("ZUL_TRACE");
    EXPECT_EQ(stderr_of([&] { trace("text", 0); }), "");
}

TEST_F(zul, EnablesAFacilityByItsOwnNameOnly) {
    set("other=4");
    EXPECT_TRUE(handle_of("other").enabled(level{4}));
    EXPECT_FALSE(handle_of("tarvo").enabled(level{4}));
}

TEST_F(zul, WritesARecordAsOneLine) {
    set("tarvo=5");
    EXPECT_EQ(stderr_of([&] { trace("text"); }), "[tarvo:5] tarvo:123 tarvo_map: text\n");
    EXPECT_EQ(stderr_of([&] { trace("text", 3); }), "[tarvo:3] tarvo:123 tarvo_map: text\n");
}

TEST_F(zul, WritesNothingAboveTheLevel) {
    set("tarvo=5");
    EXPECT_EQ(stderr_of([&] { trace("text", 6); }), "");
}

TEST_F(zul, KeepsATextWithNewlinesOnOneLine) {
    set("5");
    EXPECT_EQ(stderr_of([&] { trace("text\n"); }), "[tarvo:5] tarvo:123 tarvo_map: text\n");
    EXPECT_EQ(stderr_of([&] { trace("a\nb\n\n"); }), "[tarvo:5] tarvo:123 tarvo_map: a\\nb\\n\n");
    EXPECT_EQ(stderr_of([&] { trace(""); }), "[tarvo:5] tarvo:123 tarvo_map: \n");
}

TEST_F(zul, WritesALongTextWhole) {
    set("5");
    const std::string text(100000, 'x');
    EXPECT_EQ(stderr_of([&] { trace(text); }), "[tarvo:5] tarvo:123 tarvo_map: " + text + "\n");
}

TEST_F(zul, LeavesTheCallersStorageAloneWhenDisabled) {
    set("tarvo=5");
    storage.fill(std::byte{0x5a});
    Zul::TraceHandle handle = handle_of("tarvo");
    EXPECT_EQ(Zul::TraceHelper::createIfEnabled(handle, level{6}, storage.data()), nullptr);
    EXPECT_TRUE(
        std::ranges::all_of(storage, [](std::byte byte) { return byte == std::byte{0x5a}; }));
}

TEST_F(zul, BuildsTheHelperInTheCallersStorage) {
    set("tarvo=5");
    Zul::TraceHandle handle = handle_of("tarvo");
    Zul::TraceHelper* helper = Zul::TraceHelper::createIfEnabled(handle, level{5}, storage.data());
    const Zul::EnsureTraceHelperIsDestroyed ensure(helper);
    EXPECT_EQ(static_cast<void*>(helper), static_cast<void*>(storage.data()));
}

TEST_F(zul, DestroysNoHelperWhereThereIsNone) {
    EXPECT_EQ(stderr_of([] { const Zul::EnsureTraceHelperIsDestroyed ensure(nullptr); }), "");
}

TEST(zul_string, HasTheGivenLength) {
    EXPECT_EQ(Zul::String("tarvo and more", 5).text(), "tarvo");
    EXPECT_EQ(Zul::String("", 0).text(), "");
    EXPECT_EQ(Zul::String("a\0b", 3).text(), std::string("a\0b", 3));
}

TEST(zul_string, IsAppendedToAStream) {
    std::ostringstream stream;
    stream << "a" << Zul::String("b", 1) << "c";
    EXPECT_EQ(stream.str(), "abc");
}

TEST(zul_format, FormatsAsPrintfDoes) {
    EXPECT_EQ(
        Zul::format("%s: %d %zx 0x%llx", "name", -5, size_t{0x2a801000}, 0x140000000ULL).text(),
        "name: -5 2a801000 0x140000000");
    EXPECT_EQ(Zul::format("%s", "").text(), "");
}

TEST(zul_format, ThrowsWhatCannotBeMade) {
    // No character of the locale that a program starts with.
    EXPECT_THROW(Zul::format("%ls", L"\u20ac"), std::bad_alloc);
}

TEST(zul_format, HasNoLimitOfItsOwn) {
    const std::string text(100000, 'x');
    EXPECT_EQ(Zul::format("<%s>", text.c_str()).text(), "<" + text + ">");
}

} // namespace

} // namespace zul_test
