#include "terminal.hpp"

#include <gtest/gtest.h>

namespace bytes_test {

namespace {

class bytes : public ::testing::Test {
  protected:
    sandbox machine{high};
    client driver = machine.start({"alloc rx_ring 0x2000 driver"});
};

TEST_F(bytes, AreShownWithTheirOffsetsLikeHexdumpDoes) {
    EXPECT_EQ(
        tarvoctl(machine, {"write", "rx_ring", "--offset", "0x1014"}, "hello\n\x7f\xff").output,
        "rx_ring: wrote 8 bytes at offset 0x1014\n");
    EXPECT_EQ(
        tarvoctl(machine, {"read", "rx_ring", "--offset", "0xff0", "--size", "0x58"}),
        printed("00000ff0  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"
                "*\n"
                "00001010  00 00 00 00 68 65 6c 6c  6f 0a 7f ff 00 00 00 00  |....hello.......|\n"
                "00001020  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"
                "*\n"
                "00001040  00 00 00 00 00 00 00 00                           |........|\n"
                "00001048\n"));
}

TEST_F(bytes, AreGivenRaw) {
    tarvoctl(machine, {"write", "rx_ring"}, std::string("a\0b\n", 4));
    EXPECT_EQ(tarvoctl(machine, {"read", "rx_ring", "--raw", "--size", "4"}).output,
              std::string("a\0b\n", 4));
    EXPECT_EQ(tarvoctl(machine, {"read", "rx_ring", "--raw"}).output.size(), 0x2000);
}

TEST_F(bytes, AreSeenByOtherProcesses) {
    const auto address = driver.map("rx_ring", false);
    tarvoctl(machine, {"fill", "rx_ring", "0xab", "--offset", "0x1001", "--size", "2"});
    const auto outcome =
        tarvoctl(machine, {"read", "rx_ring", "--offset", "0x1000", "--size", "4", "--raw"});
    EXPECT_EQ(outcome.output, std::string("\0\xab\xab\0", 4));
    EXPECT_EQ(driver.call("peek " + std::to_string(address) + " 4096 4"), "00abab00");
}

TEST_F(bytes, FillTakesTheWholeChunkWhereNothingElseIsSaid) {
    EXPECT_EQ(tarvoctl(machine, {"fill", "rx_ring", "65"}),
              printed("rx_ring: wrote 8 KiB at offset 0x0\n"));
    EXPECT_EQ(tarvoctl(machine, {"read", "rx_ring", "--raw"}).output, std::string(0x2000, 'A'));
}

TEST_F(bytes, AnInputThatIsTooLongIsRefusedBeforeAnythingIsWritten) {
    EXPECT_EQ(tarvoctl(machine, {"write", "rx_ring", "--offset", "0x1fff"}, "no room for it"),
              failed(2, "standard input has 14 bytes, and 'rx_ring' has 1 byte from offset 0x1fff "
                        "on; nothing was written"));
    EXPECT_EQ(tarvoctl(machine, {"read", "rx_ring", "--raw"}).output, std::string(0x2000, '\0'));
}

TEST_F(bytes, APipeThatIsTooLongIsWrittenUpToTheChunksEnd) {
    driver.alloc("behind", 0x1000);
    running_tool tool = start_tarvoctl(machine, {"write", "rx_ring", "--offset", "8190"});
    tool.program.write_line("abcd");
    EXPECT_EQ(tool.program.wait(), (ending{2, 0}));
    EXPECT_EQ(tool.program.error_text(), "tarvoctl: stopped at the end of 'rx_ring': wrote 2 bytes "
                                         "at offset 0x1ffe, and standard input has more\n");
    EXPECT_EQ(tarvoctl(machine, {"read", "rx_ring", "--raw", "--offset", "8190"}).output, "ab");
    EXPECT_EQ(tarvoctl(machine, {"read", "behind", "--raw", "--size", "2"}).output,
              std::string(2, '\0'));
}

TEST_F(bytes, WindowsOutsideTheChunkAreUsageErrors) {
    const auto message = [&](const arguments& words) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 2);
        return outcome.errors;
    };
    EXPECT_EQ(message({"read", "rx_ring", "--offset", "8K"}),
              "tarvoctl: --offset 8K is not in 'rx_ring', which has 8 KiB\n");
    EXPECT_EQ(
        message({"read", "rx_ring", "--offset", "4K", "--size", "4097"}),
        "tarvoctl: --size 4097 is not 1 to 4096: 'rx_ring' has 4 KiB from offset 0x1000 on\n");
    EXPECT_EQ(message({"read", "rx_ring", "--offset", "8191", "--size", "2"}),
              "tarvoctl: --size 2 is not 1 to 1: 'rx_ring' has 1 byte from offset 0x1fff on\n");
    EXPECT_EQ(message({"fill", "rx_ring", "1", "--size", "0"}),
              "tarvoctl: --size 0 is not 1 to 8192: 'rx_ring' has 8 KiB from offset 0x0 on\n");
    EXPECT_EQ(message({"fill", "rx_ring", "256"}), "tarvoctl: BYTE 256 is more than 0xff\n");
    EXPECT_EQ(message({"fill", "rx_ring", "x"}),
              "tarvoctl: invalid BYTE 'x'; write it as 128 or 0x80\n");
    EXPECT_EQ(message({"read", "rx"}),
              "tarvoctl: no chunk is called 'rx'; similar ones: rx_ring\n");
}

using addresses = bytes;

TEST_F(addresses, FindTellsTheChunkAndTheOffset) {
    EXPECT_EQ(tarvoctl(machine, {"find", "0x20001004"}),
              printed("DMA 0x20001004 is in 'rx_ring', offset 0x1004 of 8 KiB\n"));
    const auto document = json_of(tarvoctl(machine, {"find", "0x20001004", "--json"}));
    EXPECT_EQ(document.at("chunk").at("name"), "rx_ring");
    EXPECT_EQ(document.at("offset"), 0x1004);
    EXPECT_EQ(document.at("pa").at("hex"), "0x200001004");
}

TEST_F(addresses, FreeBytesAreAFinding) {
    EXPECT_EQ(tarvoctl(machine, {"find", "0x20002000"}),
              (tool_outcome{1, "DMA 0x20002000 is in no chunk\n", ""}));
    EXPECT_EQ(json_of(tarvoctl(machine, {"find", "0x20002000", "--json"})).at("chunk"), nullptr);
}

TEST_F(addresses, FindAgreesWithTheLibrary) {
    driver.alloc("other", 0x1000);
    for (const uint32_t dma :
         {0x20000000U, 0x20001fffU, 0x20002000U, 0x20002fffU, 0x20003000U, 0x5fffffffU}) {
        const auto document = json_of(tarvoctl(machine, {"find", std::to_string(dma), "--json"}));
        const found_chunk found = driver.find(dma);
        const auto& chunk = document.at("chunk");
        EXPECT_EQ(chunk.is_null(), !found.name.has_value());
        if (found.name) {
            EXPECT_EQ(chunk.at("name"), *found.name);
            EXPECT_EQ(chunk.at("dma").at("number"), found.dma);
        }
    }
}

TEST_F(addresses, TranslateTakesBothKinds) {
    const std::string expected =
        "DMA 0x20001004, physical 0x0200001004, in 'rx_ring', offset 0x1004 of 8 KiB\n";
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x20001004"}).output, expected);
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x200001004"}).output, expected);
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x20001004", "--dma"}).output, expected);
    EXPECT_EQ(tarvoctl(machine, {"translate", "8589938692", "--pa"}).output, expected);
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x23fffffff"}).output,
              "DMA 0x5fffffff, physical 0x023fffffff, in no chunk\n");
}

TEST_F(addresses, TranslateAgreesWithTheLibrary) {
    const auto document = json_of(tarvoctl(machine, {"translate", "0x20001004", "--json"}));
    EXPECT_EQ(document.at("pa").at("number"), driver.to_pa(0x20001004));
    EXPECT_EQ(document.at("dma").at("number"), driver.to_dma(0x200001004));
}

TEST_F(addresses, OutsideTheRegionIsAUsageErrorThatTellsTheRegion) {
    const std::string region = " is not in the region; the region is DMA 0x20000000-0x5fffffff, "
                               "physical 0x0200000000-0x023fffffff\n";
    const auto message = [&](const arguments& words) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 2);
        return outcome.errors;
    };
    EXPECT_EQ(message({"find", "0x1fffffff"}), "tarvoctl: DMA address 0x1fffffff" + region);
    EXPECT_EQ(message({"find", "0x60000000"}), "tarvoctl: DMA address 0x60000000" + region);
    EXPECT_EQ(message({"translate", "5"}), "tarvoctl: DMA or physical address 5" + region);
    EXPECT_EQ(message({"translate", "0x20000000", "--pa"}),
              "tarvoctl: physical address 0x20000000" + region);
    EXPECT_EQ(message({"find", "0x100000000"}),
              "tarvoctl: DMA 0x100000000 is more than 0xffffffff\n");
    EXPECT_EQ(message({"find", "20z"}), "tarvoctl: invalid DMA '20z'; write it as 128 or 0x80\n");
}

TEST(ambiguous_address, IsAskedAbout) {
    // Seen from 0x20000000 on, because it ends above 4 GiB: the two ranges overlap.
    sandbox machine(high, {"--region", "30000000-10fffffff"});
    machine.start().alloc("a", 0x1000);
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x30000000"}),
              failed(2, "0x30000000 is a DMA address and a physical one; say --dma or --pa"));
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x30000000", "--pa"}).output,
              "DMA 0x20000000, physical 0x0030000000, in 'a', offset 0x0 of 4 KiB\n");
    EXPECT_EQ(tarvoctl(machine, {"translate", "0x30000000", "--dma"}).output,
              "DMA 0x30000000, physical 0x0040000000, in no chunk\n");
}

class limits : public ::testing::TestWithParam<world> {};

TEST_P(limits, AreTheLibrarys) {
    sandbox machine(GetParam());
    client driver = machine.start();
    const dma_limits expected = driver.limits();
    const auto document = json_of(tarvoctl(machine, {"limits", "--json"}));
    const auto& region = document.at("region");
    EXPECT_EQ(region.at("dma").at("number"), expected.start);
    EXPECT_EQ(region.at("dma_end").at("number"), expected.end - 1);
    EXPECT_EQ(region.at("pa").at("number"), GetParam().start);
    EXPECT_EQ(region.at("size"), GetParam().bytes);
    EXPECT_EQ(document.at("bookkeeping_bytes"), rounded_to_pages(area_offset::content_end));
}

INSTANTIATE_TEST_SUITE_P(Worlds, limits, ::testing::ValuesIn(all_worlds()), world_name());

TEST(limits_text, TellsBothRangesAndTheSize) {
    sandbox machine(crossing);
    machine.start().limits();
    EXPECT_EQ(tarvoctl(machine, {"limits"}).output, "DMA          0x20000000-0x3fffffff\n"
                                                    "physical     0x00f0000000-0x010fffffff\n"
                                                    "size         512 MiB (536870912 bytes)\n"
                                                    "bookkeeping  68488 KiB (70131712 bytes)\n");
}

TEST(read, TellsAtATerminalHowFarItIsWhenThatTakesLong) {
    sandbox machine(low);
    constexpr size_t bytes = 0x400000;
    machine.start().alloc("long", bytes);
    std::string input(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i) {
        input[i] = static_cast<char>(i / 16); // no line repeats the one above
    }
    ASSERT_EQ(tarvoctl(machine, {"write", "long"}, input).status, 0);
    terminal screen(24, 80);
    // Its reader takes nothing for longer than a second.
    process tool = machine.start_process(
        {"sh", "-c", "\"$0\" read long 2>\"$1\" | { sleep 1.5; cat >/dev/null; }", TARVOCTL,
         screen.name()});
    EXPECT_EQ(tool.wait(), normal_end);
    EXPECT_TRUE(contains(screen.output_with("\x1b[K"), " % of 4 MiB"));
    // A program that reads standard error has nothing of it.
    EXPECT_EQ(tarvoctl(machine, {"read", "long"}).errors, "");
}

} // namespace

} // namespace bytes_test
