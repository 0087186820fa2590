#include "terminal.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <string_view>

namespace picture_test {

namespace {

/// A row of the picture without its address and its frame.
std::string signs_of(const std::string& line) {
    return line.substr(14, line.size() - 15);
}

/// Five chunks at the start of 256 MiB, two of them neighbours, with two gaps.
void make_five(client& driver) {
    driver.alloc("rx_ring", 0x10000);
    driver.alloc("tx_ring", 0x10000);
    driver.alloc("hole", 0x1000);
    driver.alloc("stats", 0x1000);
    driver.alloc("second_hole", 0xe000);
    driver.alloc("frame_buffer", 0x100000);
    driver.alloc("<log & \"x\">", 0x3000);
    driver.free("hole");
    driver.free("second_hole");
}

/// `count` chunks of one page but for every fiftieth, which has 16.
void make_many(client& driver, int count) {
    for (int i = 0; i < count; ++i) {
        driver.alloc("chunk_" + std::to_string(i), i % 50 == 0 ? 0x10000 : 0x1000);
    }
}

class picture : public testing::Test {
  protected:
    sandbox machine{low};
    client driver = machine.start();
};

TEST_F(picture, OfFiveChunksNamesEachInItOrByALetterAndFoldsFreeRows) {
    make_five(driver);
    const auto lines = lines_of(tarvoctl(machine, {"map"}).output);
    ASSERT_EQ(lines.size(), 19U);
    // Neighbours differ.
    EXPECT_EQ(signs_of(lines[0]),
              "####rx_ring#####====tx_ring=====.A.............." + std::string(16, '='));
    EXPECT_EQ(signs_of(lines[1]), std::string(26, '=') + "frame_buffer" + std::string(26, '='));
    EXPECT_EQ(signs_of(lines[2]), std::string(64, '='));
    EXPECT_EQ(signs_of(lines[4]), std::string(48, '=') + "#B#" + std::string(13, '.'));
    // Few chunks are no speck in a large region.
    EXPECT_EQ(lines[5], "0x0080140000 |................... 260864 KiB free, folded "
                        "....................|");
    EXPECT_EQ(lines[7], "One sign is 4 KiB: # and = chunks in turn, + - partly free, . free");
    EXPECT_EQ(lines[10], "KEY  PHYSICAL            SIZE  WHAT");
    EXPECT_EQ(lines[11], "     0x0080000000      64 KiB  rx_ring");
    EXPECT_EQ(lines[13], "     0x0080020000       4 KiB  (free)");
    EXPECT_EQ(lines[14], "A    0x0080021000       4 KiB  stats");
    EXPECT_EQ(lines[17], "B    0x0080130000      12 KiB  <log & \"x\">");
}

TEST_F(picture, IsAsTheManualShowsIt) {
    const std::vector<std::pair<const char*, uint64_t>> chunks{
        {"rx_ring", 0x10000}, {"tx_ring", 0x10000},    {"hole", 0x1000},
        {"stats", 0x1000},    {"second_hole", 0xe000}, {"frame_buffer", 0x50000}};
    for (const auto& [name, size] : chunks) {
        driver.alloc(name, size);
    }
    driver.free("hole");
    driver.free("second_hole");
    const std::string manual = file_text(TARVOCTL_MANUAL);
    const std::string_view beginning = ".Bd -literal\n";
    const auto from = manual.find(std::string{beginning} + "0x00");
    ASSERT_NE(from, std::string::npos);
    const auto example = from + beginning.size();
    const std::string shown = manual.substr(example, manual.find(".Ed\n", example) - example);
    EXPECT_EQ(tarvoctl(machine, {"map"}).output.substr(0, shown.size()), shown);
}

TEST_F(picture, OnAWideTerminalItIsWiderAndHasColours) {
    make_five(driver);
    terminal screen(50, 200);
    running_tool map = screen.start(machine, {"map"});
    const std::string output = screen.output_with("fragmentation");
    EXPECT_EQ(map.program.wait(), normal_end);
    EXPECT_TRUE(contains(output, "\x1b[34m"));
    EXPECT_TRUE(contains(output, "\x1b[36m"));
    // Twice as many signs of a page each: the second row begins half a mebibyte above the first.
    EXPECT_TRUE(contains(output, "0x0080080000 |"));
    EXPECT_FALSE(contains(output, "0x0080040000 |"));
}

TEST_F(picture, OfFiftyChunksEachIsListedWithItsLetter) {
    for (int i = 0; i < 50; ++i) {
        driver.alloc("chunk_" + std::to_string(i), 0x100000);
    }
    const auto lines = lines_of(tarvoctl(machine, {"map"}).output);
    for (int i = 0; i < 50; ++i) {
        const std::string name = "  chunk_" + std::to_string(i);
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [&](const auto& each) { return each.ends_with(name); });
        ASSERT_NE(line, lines.end()) << name;
        EXPECT_NE(line->front(), ' ') << *line;
    }
}

TEST_F(picture, OfAllChunksTheLargestAreListedAndTheOthersCounted) {
    make_many(driver, 16382);
    const auto output = tarvoctl(machine, {"map"}).output;
    EXPECT_TRUE(contains(output, "  chunk_0\n"));
    EXPECT_TRUE(contains(output, "\nThe 20 largest of 16382 chunks; 'tarvoctl list' shows all\n"));
    EXPECT_LT(lines_of(output).size(), 45U);
}

/// The texts of a picture that was written to a file, once it was checked: labels neither leave the
/// page nor cover one another.
class svg : public testing::Test {
  public:
    std::vector<std::string> texts() {
        EXPECT_EQ(tarvoctl(machine, {"map", "--force", "--svg", file}).status, 0);
        const auto checked = run_program(machine, {TARVO_PYTHON, TARVOCTL_CHECK_PICTURE, file});
        EXPECT_EQ(checked.status, 0) << checked.errors;
        return lines_of(checked.output);
    }

    static std::ptrdiff_t count(const std::vector<std::string>& all, const std::string& text) {
        return std::count(all.begin(), all.end(), text);
    }

    sandbox machine{low};
    client driver{machine.start()};
    temporary_folder folder;
    std::string file = folder.path() / "map.svg";
};

TEST_F(svg, TellsNameSizeAndAddressOfFivePiecesAndTheirGaps) {
    make_five(driver);
    const auto all = texts();
    for (const char* text :
         {"rx_ring", "64 KiB", "0x0080010000", "frame_buffer", "1 MiB",
          "stats, 4 KiB at 0x0080021000", "<log & \"x\">, 12 KiB at 0x0080130000",
          "free, 4 KiB at 0x0080020000", "56 KiB"}) {
        EXPECT_GE(count(all, text), 1) << text;
    }
    EXPECT_EQ(count(all, "folded"), 1);
}

TEST_F(svg, MarksDevicesAndHoldersAndExplainsTheMarks) {
    driver.register_device(0, 3, 0);
    make_five(driver);
    driver.map("rx_ring");
    const auto all = texts();
    EXPECT_EQ(count(all, "device 0000:03:00.0"), 1);
    EXPECT_EQ(count(all, "mapped by " + std::to_string(driver.pid()) + " (tarvo-client)"), 1);
    const std::string text = file_text(file);
    EXPECT_TRUE(contains(text, "<circle class=\"mark\""));
    EXPECT_TRUE(contains(text, "prefers-color-scheme: dark"));
}

TEST_F(svg, NamesTheNarrowRestOfAChunkOnTheNextRow) {
    driver.alloc("first", 0x2d000);
    driver.alloc("wrapped", 0x14000); // a page of it is on the second row of 256 KiB
    const auto all = texts();
    EXPECT_EQ(count(all, "wrapped, continued, 4 KiB here"), 1);
    EXPECT_EQ(count(all, "0x008002d000"), 1);
}

TEST_F(svg, NamesAllOfFiftyChunks) {
    make_many(driver, 50);
    const auto all = texts();
    for (int i = 0; i < 50; ++i) {
        const std::string name = "chunk_" + std::to_string(i);
        const bool is_named = std::any_of(all.begin(), all.end(), [&name](const auto& text) {
            return text == name || text.starts_with(name + ", ");
        });
        EXPECT_TRUE(is_named) << name;
    }
}

TEST_F(svg, OfAllChunksNamesTheLargestAndCountsTheOthers) {
    make_many(driver, 16382);
    const auto all = texts();
    const auto named = std::count_if(all.begin(), all.end(),
                                     [](const auto& text) { return text.starts_with("chunk_"); });
    EXPECT_GT(named, 30);
    EXPECT_EQ(count(all, std::to_string(16382 - named) +
                             " chunks too small to be named here; 'tarvoctl list' shows all"),
              1);
    EXPECT_LT(file_text(file).size(), 300000U);
}

TEST_F(svg, HoldsNamesThatXmlCannot) {
    for (const char* name : {"\xef\xbf\xbf", "a\x1b[31m", "&amp;", "]]>", "\xfe", "\xe6\xbc\xa2"}) {
        driver.alloc(name, 0x10000);
    }
    const auto all = texts();
    for (const char* name :
         {"\\xef\\xbf\\xbf", "a\\x1b[31m", "&amp;", "]]>", "\\xfe", "\xe6\xbc\xa2"}) {
        EXPECT_EQ(count(all, name), 1) << name;
    }
}

} // namespace

} // namespace picture_test
