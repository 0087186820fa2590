#include "tool.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace map_test {

namespace {

/// 64K at the region's start, a gap of 64K, 128M, and the rest of the 256M is free.
void fill(sandbox& machine) {
    const client driver = machine.start({"alloc first 0x10000 test", "alloc hole 0x10000 test",
                                         "alloc large 0x8000000 test", "free hole"});
}

TEST(map, DrawsChunksAndGapsToScaleAndSumsThemUp) {
    sandbox machine(low);
    fill(machine);
    const auto lines = lines_of(tarvoctl(machine, {"map"}).output);
    ASSERT_EQ(lines.size(), 19U);
    // Rows of 64 signs: half of the region is used, and part of a sign at its start and its end.
    const std::string full(64, '#');
    EXPECT_EQ(lines[0],
              "0x0080000000 |+############################large##############################|");
    EXPECT_EQ(lines[1], "0x0081000000 |" + full + "|");
    EXPECT_EQ(lines[7], "0x0087000000 |" + full + "|");
    EXPECT_EQ(lines[8], "0x0088000000 |+" + std::string(63, '.') + "|");
    EXPECT_EQ(lines[9],
              "0x0089000000 |..................... 112 MiB free, folded .....................|");
    EXPECT_EQ(lines[12], "131008 KiB of 262144 KiB free in 2 gaps, the largest 130944 KiB; 2 "
                         "chunks; fragmentation 0 %");
    EXPECT_EQ(lines[14], "KEY  PHYSICAL            SIZE  WHAT");
    EXPECT_EQ(lines[15], "     0x0080000000      64 KiB  first");
    EXPECT_EQ(lines[16], "     0x0080010000      64 KiB  (free)");
    EXPECT_EQ(lines[17], "     0x0080020000     128 MiB  large");
    EXPECT_EQ(lines[18], "     0x0088020000  130944 KiB  (free)");
}

TEST(map, FitIsWhereTheLibraryPutsTheNextChunk) {
    for (const world& each : region_worlds()) {
        sandbox machine(each);
        fill(machine);
        for (const char* size : {"4096", "0x10000", "65K", "1M"}) {
            const auto document =
                json_of(tarvoctl(machine, {"map", "--json", "--fit", size})).at("fit");
            client driver = machine.start();
            const auto dma = driver.alloc("probe", document.at("size"));
            EXPECT_EQ(document.at("place").at("dma").at("number"), dma) << each.name << size;
            driver.free("probe");
        }
    }
}

TEST(map, FitTellsHowMuchIsMissing) {
    sandbox machine(low);
    fill(machine);
    EXPECT_EQ(tarvoctl(machine, {"map", "--fit", "200M"}),
              (tool_outcome{1,
                            "does not fit: it takes 204800 KiB, the largest gap has 130944 KiB, "
                            "all gaps together 131008 KiB\n",
                            ""}));
    EXPECT_EQ(machine.start().alloc("probe", 209715200), 0U);
}

TEST(map, FitKnowsWhatElseAllocRefuses) {
    sandbox machine(low);
    client driver = machine.start();
    driver.fill("c", 16382);
    const auto fit = tarvoctl(machine, {"map", "--fit", "4096"});
    EXPECT_EQ(fit.status, 1);
    const std::string obstacle = "all 16382 chunk records are in use; free some";
    EXPECT_EQ(fit.output, "does not fit: " + obstacle + "\n");
    EXPECT_EQ(
        json_of(tarvoctl(machine, {"map", "--fit", "4096", "--json"})).at("fit").at("obstacle"),
        obstacle);
    EXPECT_TRUE(tarvoctl(machine, {"alloc", "one", "4096"})
                    .errors.ends_with("tarvoctl: no room for 'one': " + obstacle +
                                      "; see 'tarvoctl map'\n"));
}

TEST(map, FitRefusesASizeThatNoDeviceCanSee) {
    sandbox machine(low);
    machine.start().alloc("any", 0x1000);
    EXPECT_EQ(
        tarvoctl(machine, {"map", "--fit", "0x80000001"}),
        failed(2, "--fit '0x80000001' is 2147483649 bytes; a chunk has 1 to 2147483648 bytes"));
}

TEST(map, OfACopyItHasToBeSaidThatTheDriverChooses) {
    sandbox machine(cma);
    machine.start().alloc("first", 0x1000);
    const taken_snapshot copy(machine);
    EXPECT_EQ(tarvoctl(machine, {"map", "--fit", "4K", "--area", copy.path}).status, 0);
    EXPECT_EQ(tarvoctl(machine, {"map", "--fit", "4K", "--area", copy.path, "--cma"}).status, 1);
}

TEST(map, FitSaysThatTheDriverChoosesInACmaRegion) {
    sandbox machine(cma);
    machine.start().alloc("first", 0x1000);
    EXPECT_EQ(tarvoctl(machine, {"map", "--fit", "4096"}),
              (tool_outcome{1,
                            "4 KiB: the kernel driver chooses the place in a CMA region; only it "
                            "knows whether there is one\n",
                            ""}));
}

TEST(map, RefusesSizesThatNoChunkHas) {
    sandbox machine(low);
    fill(machine);
    for (const char* size : {"0", "5G", "much", "12X", "-1", "0x", ""}) {
        const auto outcome = tarvoctl(machine, {"map", std::string("--fit=") + size});
        EXPECT_EQ(outcome.status, 2) << size;
        EXPECT_TRUE(contains(outcome.errors, "--fit"));
    }
}

TEST(map, WritesThePictureToStandardOutputForAPipe) {
    sandbox machine(low);
    machine.start().alloc("rx_ring", 0x1000);
    const auto outcome = tarvoctl(machine, {"map", "--svg", "-"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(starts_with(outcome.output, "<svg"));
    EXPECT_TRUE(ends_with(outcome.output, "</svg>\n"));
    EXPECT_FALSE(std::filesystem::exists("-"));
    for (const arguments& other : {arguments{"--json"}, {"--fit", "4K"}}) {
        const auto refused = tarvoctl(machine, arguments{"map", "--svg", "-"} + other);
        EXPECT_EQ(refused.status, 2);
        EXPECT_EQ(refused.errors,
                  "tarvoctl: standard output takes the SVG of --svg - or the output of " +
                      other[0] + ", not both; name a file\n");
    }
}

TEST(map, WritesThePictureAsSvg) {
    sandbox machine(low);
    fill(machine);
    const temporary_folder folder;
    const std::string file = folder.path() / "map.svg";
    EXPECT_EQ(tarvoctl(machine, {"map", "--svg", file}).status, 0);
    const std::string text = file_text(file);
    EXPECT_EQ(text.substr(0, 4), "<svg");
    EXPECT_TRUE(contains(
        text,
        "<title>large: physical 0x0080020000-0x008801ffff, 128 MiB (134217728 bytes)</title>"));
    EXPECT_EQ(tarvoctl(machine, {"map", "--svg", "/nowhere/map.svg"}),
              failed(3, "cannot write /nowhere/map.svg: No such file or directory"));
}

TEST(map, ReplacesNoFileUnaskedAndNeverOneOfTheLibrary) {
    sandbox machine(low);
    fill(machine);
    const temporary_folder folder;
    const std::string file = folder.path() / "map.svg";
    std::ofstream(file) << "precious";
    EXPECT_EQ(tarvoctl(machine, {"map", "--svg", file}),
              failed(2, "cannot write " + file +
                            ": File exists; name another file, or --force replaces it"));
    EXPECT_EQ(file_text(file), "precious");
    EXPECT_EQ(tarvoctl(machine, {"map", "--svg", file, "--force"}).status, 0);
    EXPECT_EQ(file_text(file).substr(0, 4), "<svg");
    EXPECT_EQ(mode_of(file), "0644");

    const auto area = machine.area().snapshot();
    EXPECT_EQ(tarvoctl(machine, {"map", "--force", "--svg", "/var/shmem/tarvo_lib"}).status, 2);
    EXPECT_EQ(machine.area().snapshot(), area);
}

TEST(map, AnEmptyRegionIsOneGap) {
    sandbox machine(high);
    machine.start().limits();
    const auto document = json_of(tarvoctl(machine, {"map", "--json"}));
    EXPECT_EQ(document.at("free_bytes"), high.bytes);
    EXPECT_EQ(document.at("largest_gap_bytes"), high.bytes);
    EXPECT_EQ(document.at("gaps").size(), 1U);
    EXPECT_EQ(document.at("gaps").at(0).at("behind"), nullptr);
    EXPECT_EQ(document.at("fit"), nullptr);
}

} // namespace

} // namespace map_test
