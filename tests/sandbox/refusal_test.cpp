#include "in_sandbox.hpp"

#include <gtest/gtest.h>
#include <string>

namespace {

/// What the driver answers to lines written through one open, under the rules; "44" is a map line
/// taken whole.
std::string answers(const words& rules, const std::string& file, const words& lines,
                    const std::string& world = "low") {
    words options{"--world", world};
    for (const auto& rule : rules) {
        options.insert(options.end(), {"--rule", rule});
    }
    words arguments{"w", file};
    arguments.insert(arguments.end(), lines.begin(), lines.end());
    return speak(options, arguments);
}

std::string iommu_answers(const words& rules, const words& lines) {
    return answers(rules, iommu_file, lines);
}

std::string cma_answers(const words& rules, const words& lines) {
    return answers(rules, proc_file, lines, "cma");
}

struct malformed_case {
    const char* name;
    const char* line;
};

class malformed : public testing::TestWithParam<malformed_case> {};

TEST_P(malformed, RequestIsInvalid) {
    EXPECT_EQ(iommu_answers({}, {GetParam().line}), "open ok\nwrite EINVAL\nclose ok\n");
}

INSTANTIATE_TEST_SUITE_P(
    Lines, malformed,
    testing::Values(malformed_case{"operation", "remap 0 3 0 1 2 3 3\n"},
                    malformed_case{"no_newline", "map 0 3 0 1 2 3 3"},
                    malformed_case{"too_few", "map 0 3 0 1 2 3\n"},
                    malformed_case{"too_many", "map 0 3 0 1 2 3 3 4\n"},
                    malformed_case{"two_blanks", "map 0  3 0 1 2 3 3\n"},
                    malformed_case{"hexadecimal", "map 0 3 0 0x1 2 3 3\n"},
                    malformed_case{"dma_beyond_32_bits", "map 0 3 0 1 2 4294967296 3\n"},
                    malformed_case{"negative_address", "map 0 3 0 -1 2 3 3\n"},
                    malformed_case{"two_lines", "map 0 3 0 1 2 3 3\nmap 0 3 0 1 2 3 3\n"}),
    [](const auto& tested) { return std::string{tested.param.name}; });

TEST(driver, TakesSignedNumbersWhereTheyAreSigned) {
    EXPECT_EQ(iommu_answers({}, {"map -1 3 0 2147483648 2147487743 268435456 -2\n"}),
              "open ok\nwrite 46\nclose ok\n");
}

TEST(driver, RefusesRangesThatNoDeviceCanHave) {
    const std::string last_below_first = "map 0 3 0 2147487744 2147483648 2147487744 3\n";
    const std::string before_the_region = "map 0 3 0 2147479552 2147487743 2147479552 3\n";
    const std::string past_its_end = "unmap 0 3 0 2415915008 2415923199 2415915008 3\n";
    const std::string dma_end_beyond_32_bits = "map 0 3 0 2147483648 2147491839 4294963200 3\n";
    EXPECT_EQ(iommu_answers(
                  {}, {last_below_first, before_the_region, past_its_end, dma_end_beyond_32_bits}),
              "open ok\nwrite EINVAL\nwrite EINVAL\nwrite EINVAL\nwrite EINVAL\nclose ok\n");
}

TEST(driver, RefusesCommandsWhereTheRegionIsNotCma) {
    EXPECT_EQ(answers({}, proc_file, {"a x 1000\n"}), "open ok\nwrite EINVAL\nclose ok\n");
}

TEST(driver, RefusesInvalidCmaCommands) {
    EXPECT_EQ(
        cma_answers({}, {"b x 1000\n", "a x\n", "a x 1000", "a x g\n", "a  1000\n", "a x 0\n"}),
        "open ok\nwrite EINVAL\nwrite EINVAL\nwrite EINVAL\nwrite EINVAL\nwrite EINVAL\n"
        "write EINVAL\nclose ok\n");
}

TEST(driver, RefusesACmaNameThatALineCannotList) {
    const auto end =
        run_script({"--world", "cma"}, "printf 'a x\\0y 1000\\n' >/proc/tarvo; cat /proc/tarvo");
    EXPECT_EQ(end.output, "100000000\t13fffffff\t0\tCMA\n");
}

TEST(driver, AnswersExistingUnknownAndTooLarge) {
    EXPECT_EQ(
        cma_answers({}, {"a x 1000\n", "a x 2000\n", "r y 1000\n", "r x 2000\n", "a z 40000000\n"}),
        "open ok\nwrite 9\nwrite EEXIST\nwrite ENOENT\nwrite ENOENT\nwrite ENOMEM\nclose ok\n");
}

TEST(rule, OpPicksTheOperation) {
    EXPECT_EQ(iommu_answers({"op=map,errno=EIO"}, {map_line, unmap_line}),
              "open ok\nwrite EIO\nwrite 46\nclose ok\n");
    EXPECT_EQ(iommu_answers({"op=unmap,errno=EIO"}, {map_line, unmap_line}),
              "open ok\nwrite 44\nwrite EIO\nclose ok\n");
    EXPECT_EQ(cma_answers({"op=allocate,errno=ENOSPC"}, {"a x 1000\n", "r x 1000\n"}),
              "open ok\nwrite ENOSPC\nwrite ENOENT\nclose ok\n");
    EXPECT_EQ(cma_answers({"op=release,errno=EBUSY"}, {"a x 1000\n", "r x 1000\n"}),
              "open ok\nwrite 9\nwrite EBUSY\nclose ok\n");
}

TEST(rule, OpAnyIsTheDefaultAndTakesMalformedLinesToo) {
    EXPECT_EQ(iommu_answers({"errno=EIO"}, {map_line, "nonsense"}),
              "open ok\nwrite EIO\nwrite EIO\nclose ok\n");
    EXPECT_EQ(iommu_answers({"op=any,errno=EIO"}, {map_line}), "open ok\nwrite EIO\nclose ok\n");
}

TEST(rule, OpenReadAndOpenWriteRefuseOpens) {
    EXPECT_EQ(speak({"--world", "cma", "--rule", "op=open-read,errno=EACCES"}, {"r", proc_file}),
              "open EACCES\n");
    EXPECT_EQ(cma_answers({"op=open-read,errno=EACCES"}, {"a x 1\n"}),
              "open ok\nwrite 6\nclose ok\n");
    EXPECT_EQ(cma_answers({"op=open-write,errno=EPERM"}, {"a x 1\n"}), "open EPERM\n");
    EXPECT_EQ(speak({"--world", "cma", "--rule", "op=open-write,errno=EPERM"}, {"r+", proc_file}),
              "open EPERM\n");
}

TEST(rule, FilePicksTheFile) {
    EXPECT_EQ(cma_answers({"file=sysfs,errno=EIO"}, {"a x 1\n"}), "open ok\nwrite 6\nclose ok\n");
    EXPECT_EQ(iommu_answers({"file=sysfs,errno=EIO"}, {map_line}),
              "open ok\nwrite EIO\nclose ok\n");
}

TEST(rule, AtPicksTheSystemCall) {
    EXPECT_EQ(iommu_answers({"at=open,errno=EBUSY"}, {map_line}), "open EBUSY\n");
    EXPECT_EQ(iommu_answers({"at=write,errno=EBUSY"}, {map_line}),
              "open ok\nwrite EBUSY\nclose ok\n");
    EXPECT_EQ(iommu_answers({"at=close,errno=EBUSY"}, {map_line}),
              "open ok\nwrite 44\nclose EBUSY\n");
}

TEST(rule, AtCloseLooksAtTheLineWrittenLast) {
    EXPECT_EQ(iommu_answers({"op=map,at=close,errno=EIO"}, {unmap_line}),
              "open ok\nwrite 46\nclose ok\n");
    EXPECT_EQ(iommu_answers({"op=map,at=close,errno=EIO"}, {unmap_line, map_line}),
              "open ok\nwrite 46\nwrite 44\nclose EIO\n");
}

TEST(rule, DevicePicksThePciDevice) {
    const std::string range = " 2147483648 2147487743 0 3\n";
    const words lines{"map 0 3 0" + range, "map 0 3 1" + range, "map 1 26 255" + range};
    EXPECT_EQ(iommu_answers({"device=0000:03:00.1,errno=ENODEV"}, lines),
              "open ok\nwrite 36\nwrite ENODEV\nwrite 39\nclose ok\n");
    EXPECT_EQ(iommu_answers({"device=0001:1a:1f.7,errno=ENODEV"}, lines),
              "open ok\nwrite 36\nwrite 36\nwrite ENODEV\nclose ok\n");
}

TEST(rule, RangePicksByTheFirstAddressEndsIncluded) {
    const auto from = [](const std::string& first) {
        return "map 0 3 0 " + first + " 2147491839 0 3\n";
    };
    EXPECT_EQ(iommu_answers(
                  {"range=0x80000010-0x80000020,errno=EIO"},
                  {from("2147483663"), from("2147483664"), from("2147483680"), from("2147483681")}),
              "open ok\nwrite 36\nwrite EIO\nwrite EIO\nwrite 36\nclose ok\n");
}

TEST(rule, NamePicksTheCmaChunk) {
    EXPECT_EQ(cma_answers({"name=y,errno=EIO"}, {"a x 1000\n", "a y 1000\n"}),
              "open ok\nwrite 9\nwrite EIO\nclose ok\n");
}

TEST(rule, NthPicksByCount) {
    const words four{map_line, map_line, map_line, map_line};
    EXPECT_EQ(iommu_answers({"nth=2,errno=EIO"}, four),
              "open ok\nwrite 44\nwrite EIO\nwrite 44\nwrite 44\nclose ok\n");
    EXPECT_EQ(iommu_answers({"nth=3+,errno=EIO"}, four),
              "open ok\nwrite 44\nwrite 44\nwrite EIO\nwrite EIO\nclose ok\n");
    EXPECT_EQ(iommu_answers({"nth=2-3,errno=EIO"}, four),
              "open ok\nwrite 44\nwrite EIO\nwrite EIO\nwrite 44\nclose ok\n");
}

TEST(rule, CountsOnlyWhatItMatches) {
    EXPECT_EQ(iommu_answers({"op=map,nth=2,errno=EIO"}, {map_line, unmap_line, map_line}),
              "open ok\nwrite 44\nwrite 46\nwrite EIO\nclose ok\n");
}

TEST(rule, FirstThatIsDueAnswersAndTheOthersCount) {
    EXPECT_EQ(iommu_answers({"nth=1,errno=EIO", "nth=2,errno=ENODEV", "errno=EPERM"},
                            {map_line, map_line, map_line}),
              "open ok\nwrite EIO\nwrite ENODEV\nwrite EPERM\nclose ok\n");
}

TEST(rule, ErrnoIsANameOrANumber) {
    for (const char* name : {"ENODEV", "EUNATCH", "ENOSYS", "EIO", "EINVAL", "EEXIST", "ENOMEM",
                             "ENOENT", "EACCES", "EPERM", "EBUSY", "ENOSPC", "EAGAIN", "EINTR"}) {
        EXPECT_EQ(iommu_answers({"errno=" + std::string{name}}, {map_line}),
                  "open ok\nwrite " + std::string{name} + "\nclose ok\n");
    }
    EXPECT_EQ(iommu_answers({"errno=49"}, {map_line}), "open ok\nwrite EUNATCH\nclose ok\n");
    EXPECT_EQ(iommu_answers({"errno=EWOULDBLOCK"}, {map_line}),
              "open ok\nwrite EAGAIN\nclose ok\n");
}

TEST(rule, ENosysDoesNotHideLaterRequests) {
    EXPECT_EQ(iommu_answers({"nth=1,errno=ENOSYS", "nth=2,errno=EIO"}, {map_line, map_line}),
              "open ok\nwrite ENOSYS\nwrite EIO\nclose ok\n");
}

TEST(rule, ShortTakesSoManyBytes) {
    EXPECT_EQ(iommu_answers({"short=7"}, {map_line}), "open ok\nwrite 7\nclose ok\n");
    EXPECT_EQ(iommu_answers({"short=700"}, {map_line}), "open ok\nwrite 44\nclose ok\n");
}

TEST(rule, ShortCommandIsNotCarriedOut) {
    EXPECT_EQ(cma_answers({"nth=1,short=8"}, {"a x 1000\n", "r x 1000\n"}),
              "open ok\nwrite 8\nwrite ENOENT\nclose ok\n");
}

} // namespace
