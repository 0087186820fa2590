#include "in_sandbox.hpp"

#include <gtest/gtest.h>
#include <string>
#include <utility>

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

/// What answers() gives where open and close succeed and the lines are answered so.
std::string writes(const words& each) {
    std::string text = "open ok\n";
    for (const auto& answer : each) {
        text += "write " + answer + "\n";
    }
    return text + "close ok\n";
}

std::string iommu_answers(const words& rules, const words& lines) {
    return answers(rules, iommu_file, lines);
}

std::string cma_answers(const words& rules, const words& lines) {
    return answers(rules, proc_file, lines, "cma");
}

class malformed : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(malformed, RequestIsInvalid) {
    EXPECT_EQ(iommu_answers({}, {GetParam().second}), writes({"EINVAL"}));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, malformed,
    testing::Values(std::pair{"operation", "remap 0 3 0 1 2 3 3\n"},
                    std::pair{"no_newline", "map 0 3 0 1 2 3 3"},
                    std::pair{"too_few", "map 0 3 0 1 2 3\n"},
                    std::pair{"too_many", "map 0 3 0 1 2 3 3 4\n"},
                    std::pair{"two_blanks", "map 0  3 0 1 2 3 3\n"},
                    std::pair{"hexadecimal", "map 0 3 0 0x1 2 3 3\n"},
                    std::pair{"dma_beyond_32_bits", "map 0 3 0 1 2 4294967296 3\n"},
                    std::pair{"negative_address", "map 0 3 0 -1 2 3 3\n"},
                    std::pair{"two_lines", "map 0 3 0 1 2 3 3\nmap 0 3 0 1 2 3 3\n"}),
    [](const auto& tested) { return std::string{tested.param.first}; });

TEST(driver, TakesSignedNumbersWhereTheyAreSigned) {
    EXPECT_EQ(iommu_answers({}, {"map -1 3 0 2147483648 2147487743 268435456 -2\n"}),
              writes({"46"}));
}

TEST(driver, RefusesRangesThatNoDeviceCanHave) {
    const std::string last_below_first = "map 0 3 0 2147487744 2147483648 2147487744 3\n";
    const std::string before_the_region = "map 0 3 0 2147479552 2147487743 2147479552 3\n";
    const std::string past_its_end = "unmap 0 3 0 2415915008 2415923199 2415915008 3\n";
    const std::string dma_end_beyond_32_bits = "map 0 3 0 2147483648 2147491839 4294963200 3\n";
    EXPECT_EQ(iommu_answers(
                  {}, {last_below_first, before_the_region, past_its_end, dma_end_beyond_32_bits}),
              writes({"EINVAL", "EINVAL", "EINVAL", "EINVAL"}));
}

TEST(driver, RefusesCommandsWhereTheRegionIsNotCma) {
    EXPECT_EQ(answers({}, proc_file, {"a x 1000\n"}), writes({"EINVAL"}));
}

TEST(driver, RefusesInvalidCmaCommands) {
    EXPECT_EQ(
        cma_answers({}, {"b x 1000\n", "a x\n", "a x 1000", "a x g\n", "a  1000\n", "a x 0\n"}),
        writes({"EINVAL", "EINVAL", "EINVAL", "EINVAL", "EINVAL", "EINVAL"}));
}

TEST(driver, RefusesACmaNameThatALineCannotList) {
    const auto end =
        run_script({"--world", "cma"}, "printf 'a x\\0y 1000\\n' >/proc/tarvo; cat /proc/tarvo");
    EXPECT_EQ(end.output, "100000000\t13fffffff\t0\tCMA\n");
}

TEST(driver, AnswersExistingUnknownAndTooLarge) {
    EXPECT_EQ(
        cma_answers({}, {"a x 1000\n", "a x 2000\n", "r y 1000\n", "r x 2000\n", "a z 40000000\n"}),
        writes({"9", "EEXIST", "ENOENT", "ENOENT", "ENOMEM"}));
}

TEST(rule, OpPicksTheOperation) {
    EXPECT_EQ(iommu_answers({"op=map,errno=EIO"}, {map_line, unmap_line}), writes({"EIO", "46"}));
    EXPECT_EQ(iommu_answers({"op=unmap,errno=EIO"}, {map_line, unmap_line}), writes({"44", "EIO"}));
    EXPECT_EQ(cma_answers({"op=allocate,errno=ENOSPC"}, {"a x 1000\n", "r x 1000\n"}),
              writes({"ENOSPC", "ENOENT"}));
    EXPECT_EQ(cma_answers({"op=release,errno=EBUSY"}, {"a x 1000\n", "r x 1000\n"}),
              writes({"9", "EBUSY"}));
}

TEST(rule, OpAnyIsTheDefaultAndTakesMalformedLinesToo) {
    EXPECT_EQ(iommu_answers({"errno=EIO"}, {map_line, "nonsense"}), writes({"EIO", "EIO"}));
    EXPECT_EQ(iommu_answers({"op=any,errno=EIO"}, {map_line}), writes({"EIO"}));
}

TEST(rule, OpenReadAndOpenWriteRefuseOpens) {
    EXPECT_EQ(speak({"--world", "cma", "--rule", "op=open-read,errno=EACCES"}, {"r", proc_file}),
              "open EACCES\n");
    EXPECT_EQ(cma_answers({"op=open-read,errno=EACCES"}, {"a x 1\n"}), writes({"6"}));
    EXPECT_EQ(cma_answers({"op=open-write,errno=EPERM"}, {"a x 1\n"}), "open EPERM\n");
    EXPECT_EQ(speak({"--world", "cma", "--rule", "op=open-write,errno=EPERM"}, {"r+", proc_file}),
              "open EPERM\n");
}

TEST(rule, FilePicksTheFile) {
    EXPECT_EQ(cma_answers({"file=sysfs,errno=EIO"}, {"a x 1\n"}), writes({"6"}));
    EXPECT_EQ(iommu_answers({"file=sysfs,errno=EIO"}, {map_line}), writes({"EIO"}));
}

TEST(rule, AtPicksTheSystemCall) {
    EXPECT_EQ(iommu_answers({"at=open,errno=EBUSY"}, {map_line}), "open EBUSY\n");
    EXPECT_EQ(iommu_answers({"at=write,errno=EBUSY"}, {map_line}), writes({"EBUSY"}));
    EXPECT_EQ(iommu_answers({"at=close,errno=EBUSY"}, {map_line}),
              "open ok\nwrite 44\nclose EBUSY\n");
}

TEST(rule, AtCloseLooksAtTheLineWrittenLast) {
    EXPECT_EQ(iommu_answers({"op=map,at=close,errno=EIO"}, {unmap_line}), writes({"46"}));
    EXPECT_EQ(iommu_answers({"op=map,at=close,errno=EIO"}, {unmap_line, map_line}),
              "open ok\nwrite 46\nwrite 44\nclose EIO\n");
}

TEST(rule, DevicePicksThePciDevice) {
    const std::string range = " 2147483648 2147487743 0 3\n";
    const words lines{"map 0 3 0" + range, "map 0 3 1" + range, "map 1 26 255" + range};
    EXPECT_EQ(iommu_answers({"device=0000:03:00.1,errno=ENODEV"}, lines),
              writes({"36", "ENODEV", "39"}));
    EXPECT_EQ(iommu_answers({"device=0001:1a:1f.7,errno=ENODEV"}, lines),
              writes({"36", "36", "ENODEV"}));
}

TEST(rule, RangePicksByTheFirstAddressEndsIncluded) {
    const auto from = [](const std::string& first) {
        return "map 0 3 0 " + first + " 2147491839 0 3\n";
    };
    EXPECT_EQ(iommu_answers(
                  {"range=0x80000010-0x80000020,errno=EIO"},
                  {from("2147483663"), from("2147483664"), from("2147483680"), from("2147483681")}),
              writes({"36", "EIO", "EIO", "36"}));
}

TEST(rule, NamePicksTheCmaChunk) {
    EXPECT_EQ(cma_answers({"name=y,errno=EIO"}, {"a x 1000\n", "a y 1000\n"}),
              writes({"9", "EIO"}));
}

TEST(rule, NthPicksByCount) {
    const words four{map_line, map_line, map_line, map_line};
    EXPECT_EQ(iommu_answers({"nth=2,errno=EIO"}, four), writes({"44", "EIO", "44", "44"}));
    EXPECT_EQ(iommu_answers({"nth=3+,errno=EIO"}, four), writes({"44", "44", "EIO", "EIO"}));
    EXPECT_EQ(iommu_answers({"nth=2-3,errno=EIO"}, four), writes({"44", "EIO", "EIO", "44"}));
}

TEST(rule, CountsOnlyWhatItMatches) {
    EXPECT_EQ(iommu_answers({"op=map,nth=2,errno=EIO"}, {map_line, unmap_line, map_line}),
              writes({"44", "46", "EIO"}));
}

TEST(rule, FirstThatIsDueAnswersAndTheOthersCount) {
    EXPECT_EQ(iommu_answers({"nth=1,errno=EIO", "nth=2,errno=ENODEV", "errno=EPERM"},
                            {map_line, map_line, map_line}),
              writes({"EIO", "ENODEV", "EPERM"}));
}

TEST(rule, ErrnoIsANameOrANumber) {
    for (const char* name : {"ENODEV", "EUNATCH", "ENOSYS", "EIO", "EINVAL", "EEXIST", "ENOMEM",
                             "ENOENT", "EACCES", "EPERM", "EBUSY", "ENOSPC", "EAGAIN", "EINTR"}) {
        EXPECT_EQ(iommu_answers({"errno=" + std::string{name}}, {map_line}), writes({name}));
    }
    EXPECT_EQ(iommu_answers({"errno=49"}, {map_line}), writes({"EUNATCH"}));
    EXPECT_EQ(iommu_answers({"errno=EWOULDBLOCK"}, {map_line}), writes({"EAGAIN"}));
}

TEST(rule, ENosysDoesNotHideLaterRequests) {
    EXPECT_EQ(iommu_answers({"nth=1,errno=ENOSYS", "nth=2,errno=EIO"}, {map_line, map_line}),
              writes({"ENOSYS", "EIO"}));
}

TEST(rule, ShortTakesSoManyBytes) {
    EXPECT_EQ(iommu_answers({"short=7"}, {map_line}), writes({"7"}));
    EXPECT_EQ(iommu_answers({"short=700"}, {map_line}), writes({"44"}));
}

TEST(rule, ShortCommandIsNotCarriedOut) {
    EXPECT_EQ(cma_answers({"nth=1,short=8"}, {"a x 1000\n", "r x 1000\n"}),
              writes({"8", "ENOENT"}));
}

} // namespace
