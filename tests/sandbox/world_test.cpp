#include "in_sandbox.hpp"

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

struct region_case {
    const char* name;
    words options;
    const char* line;
    const char* mem_bytes;
};

class region : public testing::TestWithParam<region_case> {};

TEST_P(region, IsDescribedByTheFirstLineAndReachedByTheSparseFile) {
    const auto ended = run_script(GetParam().options,
                                  "cat /proc/tarvo; stat -c %s /dev/mem; echo $SIMULATION_VMID");
    EXPECT_EQ(ended.output, GetParam().line + std::string{GetParam().mem_bytes} + "\n\n");
    EXPECT_EQ(ended.errors, "");
}

INSTANTIATE_TEST_SUITE_P(
    Worlds, region,
    testing::Values(
        region_case{"low", {"--world", "low"}, "80000000\t8fffffff\t0\ttarvo\n", "2415919104"},
        region_case{"high", {"--world", "high"}, "200000000\t23fffffff\t0\ttarvo\n", "9663676416"},
        region_case{
            "crossing", {"--world", "crossing"}, "f0000000\t10fffffff\t0\ttarvo\n", "4563402752"},
        region_case{"cma", {"--world", "cma"}, "100000000\t13fffffff\t0\tCMA\n", "5368709120"},
        region_case{"own_region",
                    {"run", "--world", "low", "--region", "0x1000-1fff"},
                    "1000\t1fff\t0\ttarvo\n",
                    "8192"},
        region_case{"own_name",
                    {"--world", "low", "--region", "1000-1fff:CMA2"},
                    "1000\t1fff\t0\tCMA2\n",
                    "8192"},
        region_case{"own_line",
                    {"--world", "low", "--region-line", R"(2000\t2fff\t7\tname)"},
                    "2000\t2fff\t7\tname\n",
                    "12288"},
        region_case{"own_line_with_end",
                    {"--world", "low", "--region-line", R"(two\nlines\n)"},
                    "two\nlines\n",
                    "2415919104"}),
    [](const auto& tested) { return std::string{tested.param.name}; });

TEST(simulation, HasTheVariableAndNeitherRegionNorMemory) {
    const auto ended = run_script({}, "echo $SIMULATION_VMID; ls -A /proc/tarvo /dev/mem /var/tmp");
    EXPECT_EQ(ended.output, "1\n/var/tmp:\n");
}

TEST(simulation, TakesRequestsAllTheSame) {
    EXPECT_EQ(speak({}, {"w", iommu_file, map_line}), "open ok\nwrite 44\nclose ok\n");
}

TEST(files, BelongToRootWithTheDriversModes) {
    const auto ended = run_script({"--world", "low"},
                                  "stat -c '%a %u %g' /proc/tarvo " + iommu_file + " /dev/mem");
    EXPECT_EQ(ended.output, "644 0 0\n600 0 0\n600 0 0\n");
}

class without : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(without, LeavesOutThatOneAndNothingElse) {
    const std::string all = "/proc/tarvo " + iommu_file + " /dev/mem /var/shmem /var/lock/subsys";
    const auto ended = run_script({"--world", "low", "--without", GetParam().first},
                                  "for f in " + all + "; do test -e $f || echo $f; done");
    EXPECT_EQ(ended.output, GetParam().second + std::string{"\n"});
}

INSTANTIATE_TEST_SUITE_P(Items, without,
                         testing::Values(std::pair{"proc", "/proc/tarvo"},
                                         std::pair{"sysfs", "/sys/kernel/tarvo_iommu_map_region"},
                                         std::pair{"mem", "/dev/mem"},
                                         std::pair{"shmem", "/var/shmem"},
                                         std::pair{"lockdir", "/var/lock/subsys"}),
                         [](const auto& tested) { return std::string{tested.param.first}; });

TEST(without, LeavesNoRoomForARequestFileOfTheProgramsOwn) {
    const auto ended = run_script({"--world", "low", "--without", "sysfs"},
                                  "(echo x > " + iommu_file + ") 2>&- || echo refused");
    EXPECT_EQ(ended.output, "refused\n");
}

/// With the real one's own answers, so that the kernel itself is asked.
TEST(without, AnswersForMissingSysfsFilesAsTheKernelDoes) {
    const std::string asked = "cd /sys/kernel; LC_ALL=C; export LC_ALL;"
                              "for f in tarvo_missing tarvo_missing/file mm; do"
                              "  sh -c 'echo x > $0' $f; cat $f;"
                              "done 2>&1; true";
    const auto kernel = run_to_end({"sh", "-c", asked});
    ASSERT_NE(kernel.output.find("Permission denied"), std::string::npos) << kernel.output;
    const auto ended = run_script({"--world", "low", "--without", "sysfs"}, asked);
    EXPECT_EQ(ended.output, kernel.output);
    const auto request =
        run_script({"--world", "low", "--without", "sysfs"}, "(echo x > " + iommu_file + ") 2>&1");
    EXPECT_NE(request.output.find("Permission denied"), std::string::npos) << request.output;
}

TEST(without, AnswersWhoWritesTheRegionsFileAsTheKernelDoes) {
    const auto ended =
        run_script({"--world", "low", "--without", "proc"}, "LC_ALL=C touch /proc/tarvo 2>&1");
    EXPECT_EQ(ended.output, "touch: cannot touch '/proc/tarvo': No such file or directory\n");
}

TEST(without, CanBeRepeated) {
    const auto ended = run_script({"--world", "low", "--without", "mem", "--without", "proc"},
                                  "test -e /dev/mem || test -e /proc/tarvo || echo neither");
    EXPECT_EQ(ended.output, "neither\n");
}

TEST(machine, KeepsWorkingForOrdinaryPrograms) {
    const auto ended = run_script({"--world", "low"}, R"sh(
        grep -q libc /proc/self/maps && echo maps
        sleep 60 & test -e /proc/$!/status && echo new process; kill $!
        exec 3< /etc/passwd; test "$(readlink /proc/self/fd/3)" = /etc/passwd && echo fd
        ls /proc | grep -qx $$ && ls /proc | grep -qx tarvo && echo listed
        echo x > /dev/null && echo null
        head -c 1 /dev/zero | wc -c
        : > /dev/shm/tarvo-sandbox-test.$$ && rm /dev/shm/tarvo-sandbox-test.$$ && echo shm
        script -qec tty /dev/null < /dev/null | grep -q '/pts/' && echo pty
        test -d /var/lib && test -d /sys/kernel/mm && echo folders
    )sh");
    EXPECT_EQ(ended.output, "maps\nnew process\nfd\nlisted\nnull\n1\nshm\npty\nfolders\n");
}

TEST(machine, ShowsTheRealSysfs) {
    const std::string asked =
        "cd /sys/kernel; ls; ls mm; cat fscaps mm/transparent_hugepage/enabled; "
        "readlink iommu_groups/*/devices/* | head";
    const auto ended = run_script({"--world", "low", "--without", "sysfs"}, asked);
    EXPECT_EQ(ended.output, run_to_end({"sh", "-c", asked}).output);
    const auto with_file = run_script({"--world", "low"}, "ls /sys/kernel | grep tarvo");
    EXPECT_EQ(with_file.output, "tarvo_iommu_map_region\n");
}

TEST(machine, IsNotTouchedOutside) {
    const auto ended =
        run_script({"--world", "low"}, "touch /var/tmp/tarvo-sandbox-test /var/shmem/x /dev/x");
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_FALSE(std::filesystem::exists("/var/tmp/tarvo-sandbox-test"));
    EXPECT_FALSE(std::filesystem::exists("/dev/x"));
}

TEST(machine, GivesTheCommandTheCallersFolderUmaskInputAndEnvironment) {
    const temporary_folder folder;
    const auto ended =
        run_to_end({"sh", "-c",
                    "umask 0137; cd " + folder.path().string() +
                        " && echo typed | GREETING=hello " SANDBOX_TOOL
                        " --world low --control s -- sh -c 'umask; pwd; cat; echo $GREETING'"});
    EXPECT_EQ(ended.output, "0137\n" + folder.path().string() + "\ntyped\nhello\n");
}

TEST(machine, LeavesACommandInAFolderThatTheSandboxHides) {
    const auto ended =
        run_to_end({"sh", "-c",
                    "d=$(mktemp -d -p /var/tmp) && cd $d && echo here > f && " SANDBOX_TOOL
                    " -- cat f; rm -r $d"});
    EXPECT_EQ(ended.output, "here\n") << ended.errors;
}

TEST(state, StaysInTheFolderAndIsFoundAgain) {
    const temporary_folder folder;
    const words options{"--world", "low", "--state", folder.path() / "state"};
    run_script(options, "echo a > /var/tmp/f; echo b > /var/shmem/f; echo c > /var/lock/subsys/f;"
                        "printf d | dd of=/dev/mem bs=1 seek=4096 conv=notrunc");
    EXPECT_EQ(file_text(folder.path() / "state/tmp/f"), "a\n");
    EXPECT_EQ(file_text(folder.path() / "state/shmem/f"), "b\n");
    EXPECT_EQ(file_text(folder.path() / "state/subsys/f"), "c\n");
    const auto again = run_script(options, "cat /var/tmp/f; dd if=/dev/mem bs=1 skip=4096 count=1");
    EXPECT_EQ(again.output, "a\nd");
    struct stat mem {};
    ASSERT_EQ(::stat((folder.path() / "state/mem").c_str(), &mem), 0);
    EXPECT_EQ(mem.st_size, 0x90000000);
    EXPECT_LE(mem.st_blocks * 512, 0x200000) << "at most one large page of a sparse file";
}

TEST(state, CanLieInAFolderThatTheSandboxHides) {
    const auto ended = run_to_end({"sh", "-c",
                                   "d=$(mktemp -d -p /var/tmp) && " SANDBOX_TOOL
                                   " --state $d/s -- touch /var/tmp/f; ls $d/s/tmp; rm -r $d"});
    EXPECT_EQ(ended.output, "f\n") << ended.errors;
}

TEST(start, TakesLittleTime) {
    // Two hundred times what is aimed at would be a fault and not a busy machine.
    constexpr std::chrono::seconds limit{10};
    const auto start = std::chrono::steady_clock::now();
    run_script({"--world", "low"}, "true");
    EXPECT_LT(std::chrono::steady_clock::now() - start, limit);
}

} // namespace
