// Every way in which start-up fails: what is said, what is left, and that the next call tries
// again.

#include "observed.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace start_up_failure_test {

namespace {

const std::string no_region =
    "tarvo_init: no DMA memory found\nSIMULATION_VMID environ variable probably missing\n";
const std::string not_ready = "tarvo: failed to initialize library\n";
constexpr dma_limits failed{-1, 0xdeadbeef, 0xdeadbeef};

dma_limits whole_region(const world& chosen) {
    return {0, chosen.start_dma, chosen.end_dma()};
}

/// A start that fails, in a program that has never used the library: nothing may be left of it.
void expect_failed_start(client& user, const std::string& said) {
    const texts before = user.descriptors();
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(user.error_text(), said + not_ready);
    EXPECT_EQ(user.descriptors(), before);
}

std::string first_line(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

// ---- The simulated region ----

TEST(a_memory_file_that_will_not_open, IsTracedAndLeadsToTheHardware) {
    sandbox machine(low);
    std::filesystem::create_directory(machine.simulated_memory());
    client user = machine.start({"setenv SIMULATION_VMID 1", "setenv ZUL_TRACE tarvo=5"});
    EXPECT_EQ(user.limits(), whole_region(low));
    EXPECT_EQ(first_line(without_lines(user.error_text())),
              "[tarvo:5] tarvo:LINE tarvo_sim_init: tarvo_sim_init: open /var/tmp/tarvo failed - "
              "Is a directory");
    EXPECT_EQ(mode_of(machine.simulated_lock()), "0600");
    EXPECT_EQ(mode_of(machine.simulated_area()), "missing");
}

TEST(a_memory_file_that_will_not_open, PrintsNothingOfItsOwn) {
    sandbox machine(simulation);
    std::filesystem::create_directory(machine.simulated_memory());
    client user = machine.start();
    expect_failed_start(user, "tarvo: failed to open /proc/tarvo\n: No such file or directory\n" +
                                  no_region);
}

TEST(a_memory_file_that_cannot_be_sized, IsTracedClosedAndLeadsToTheHardware) {
    sandbox machine(low);
    client user = machine.start(
        {"setenv SIMULATION_VMID 1", "setenv ZUL_TRACE tarvo=5", "fail ftruncate ENOSPC"});
    EXPECT_EQ(user.limits(), whole_region(low));
    EXPECT_EQ(first_line(without_lines(user.error_text())),
              "[tarvo:5] tarvo:LINE tarvo_sim_init: tarvo_sim_init: ftruncate /var/tmp/tarvo "
              "failed - No space left on device");
    for (const std::string& fd : user.descriptors()) {
        EXPECT_EQ(fd.find("/var/tmp/tarvo:"), std::string::npos) << fd;
    }
}

TEST(a_memory_file_that_cannot_be_sized, IsClosedAgainByTheCleanUpUnderItsOldNumber) {
    sandbox machine(simulation);
    client user = machine.start({"fail ftruncate EIO"});
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(user.error_text(),
              "tarvo: failed to open /proc/tarvo\n: No such file or directory\n" + no_region +
                  not_ready);
    EXPECT_EQ(user.call("calls"),
              "umask(00)=022 open(/var/tmp/tarvo,O_RDWR|O_CREAT|O_CLOEXEC,0666)=3 umask(022)=00 "
              "ftruncate(3,713035776)=-1 close(3)=0 fopen(/proc/tarvo,re)=null close(3)=-1");
}

TEST(a_simulated_area_that_will_not_open, IsReportedAndLeadsToTheHardware) {
    sandbox machine(high);
    std::filesystem::create_directory(machine.simulated_area());
    client user = machine.start({"setenv SIMULATION_VMID 1"});
    const texts before = user.descriptors();
    EXPECT_EQ(user.limits(), whole_region(high));
    EXPECT_EQ(user.error_text(), "Failed to open /var/tmp/tarvo_lib: Is a directory\n");
    // The simulated memory is closed; only the hardware's files are open.
    EXPECT_EQ(added(before, user.descriptors()),
              (texts{"3:/var/tmp/tarvo_lock:r:cloexec", "4:/dev/mem:rw:cloexec",
                     "5:/var/shmem/tarvo_lib:rw:cloexec"}));
}

TEST(a_simulated_area_that_will_not_open, LeavesTheHardwareLockOpenToEverybody) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()).flush();
    std::filesystem::create_directory(machine.simulated_area());
    client user = machine.start({"umask 022"});
    EXPECT_EQ(user.limits(), whole_region(low));
    EXPECT_EQ(mode_of(machine.hardware_lock()), "0666");
    EXPECT_EQ(mode_of(machine.hardware_area()), "0600");
}

TEST(a_simulated_area_that_will_not_open, IsForgottenByTheNextAttempt) {
    sandbox machine(low, {"--rule", "op=open-read,nth=1,errno=EIO"});
    std::ofstream(machine.simulated_memory()).flush();
    std::filesystem::create_directory(machine.simulated_area());
    client user = machine.start();
    expect_failed_start(user, "Failed to open /var/tmp/tarvo_lib: Is a directory\n"
                              "tarvo: failed to open /proc/tarvo\n: Input/output error\n" +
                                  no_region);
    std::filesystem::remove(machine.simulated_memory());
    EXPECT_EQ(user.limits(), whole_region(low));
    EXPECT_EQ(mode_of(machine.hardware_lock()), "0600");
}

// ---- The driver's region ----

struct driver_fault {
    const char* name;
    texts options;
    std::string said;
};

std::ostream& operator<<(std::ostream& stream, const driver_fault& fault) {
    return stream << fault.name;
}

class a_region_that_cannot_be_used : public testing::TestWithParam<driver_fault> {};

TEST_P(a_region_that_cannot_be_used, IsReportedAndLeavesNothingBehind) {
    sandbox machine(low, GetParam().options);
    client user = machine.start();
    expect_failed_start(user, GetParam().said + no_region);
    EXPECT_EQ(mode_of(machine.hardware_lock()), "missing");
}

TEST_P(a_region_that_cannot_be_used, IsTracedWithBothLinesInOne) {
    sandbox machine(low, GetParam().options);
    client user = machine.start({"setenv ZUL_TRACE 3"});
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(without_lines(user.error_text()),
              GetParam().said + no_region +
                  "[tarvo:3] tarvo:LINE tarvo_init: tarvo_init: no DMA memory found\\n"
                  "SIMULATION_VMID environ variable probably missing\n" +
                  not_ready);
}

const std::string cannot_parse = "tarvo: failed to parse /proc/tarvo\n";

INSTANTIATE_TEST_SUITE_P(
    , a_region_that_cannot_be_used,
    testing::Values(
        driver_fault{"NoDriver",
                     {"--without", "proc"},
                     "tarvo: failed to open /proc/tarvo\n: No such file or directory\n"},
        driver_fault{"DriverRefusesToOpen",
                     {"--rule", "op=open-read,errno=EACCES"},
                     "tarvo: failed to open /proc/tarvo\n: Permission denied\n"},
        driver_fault{
            "NoFirstLine", {"--rule", "listing=empty"}, "Couldn't read from /proc/tarvo\n"},
        driver_fault{"BlankLine", {"--region-line", ""}, cannot_parse},
        driver_fault{"NoNumbers", {"--region-line", "nothing of use here"}, cannot_parse},
        driver_fault{"NoName", {"--region-line", R"(80000000\t8fffffff\t0)"}, cannot_parse},
        driver_fault{
            "NoThirdNumber", {"--region-line", R"(80000000\t8fffffff\ttarvo)"}, cannot_parse},
        driver_fault{"NameAfter2048Bytes",
                     {"--region-line", "80000000 8fffffff 0 " + std::string(2100, ' ') + "tarvo"},
                     cannot_parse},
        driver_fault{"NoMemoryDevice",
                     {"--without", "mem"},
                     "tarvo: failed to open DMA memory\n: No such file or directory\n"},
        driver_fault{"NoAreaFolder",
                     {"--without", "shmem"},
                     "Failed to open /var/shmem/tarvo_lib: No such file or directory\n"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(a_hardware_area_that_will_not_open, HasTheMemoryClosedTwice) {
    sandbox machine(low, {"--without", "shmem"});
    client user = machine.start();
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(user.call("calls"),
              "umask(00)=022 open(/var/tmp/tarvo,O_RDWR|O_CLOEXEC)=-1 umask(022)=00 "
              "fopen(/proc/tarvo,re)=pointer open(/dev/mem,O_RDWR|O_CLOEXEC)=4 "
              "open(/var/shmem/tarvo_lib,O_RDWR|O_CREAT|O_CLOEXEC,0600)=-1 close(4)=0 "
              "fclose(stream)=0 close(4)=-1");
}

class a_region_without_extent : public testing::TestWithParam<const char*> {};

TEST_P(a_region_without_extent, EndsTheProcess) {
    sandbox machine(low, {"--region-line", GetParam()});
    client user = machine.start();
    EXPECT_EQ(user.dies("limits"), ended_by(SIGABRT));
    EXPECT_EQ(without_lines(user.error_text()),
              "tarvo-client: tarvo:LINE: int tarvo_devmem_init(): Assertion "
              "`start && (end > start)' failed.\n");
    EXPECT_EQ(mode_of(machine.hardware_area()), "missing");
}

INSTANTIATE_TEST_SUITE_P(, a_region_without_extent,
                         testing::Values(R"(0\t8fffffff\t0\ttarvo)",
                                         R"(80000000\t80000000\t0\ttarvo)",
                                         R"(80000000\t7fffffff\t0\tCMA)"));

// ---- The shared area ----

TEST(an_area_that_cannot_be_sized, IsReportedUnderItsHardwareNameInSimulationToo) {
    sandbox machine(simulation);
    client user = machine.start({"fail ftruncate EFBIG 2"});
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(user.error_text(),
              "Failed to truncate /var/shmem/tarvo_lib: File too large\n" + not_ready);
}

TEST(an_area_that_cannot_be_sized, StaysOpenAndHasDescriptor0ClosedInstead) {
    sandbox machine(low);
    std::filesystem::create_symlink("/dev/null", machine.hardware_area());
    client user = machine.start();
    const texts at_first = user.descriptors();
    ASSERT_EQ(at_first.front().substr(0, 2), "0:");
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(user.error_text(),
              "Failed to truncate /var/shmem/tarvo_lib: Invalid argument\n" + not_ready);
    const texts in_the_end = user.descriptors();
    EXPECT_EQ(added(in_the_end, at_first), texts{at_first.front()});
    ASSERT_EQ(added(at_first, in_the_end).size(), 1U);
    EXPECT_EQ(added(at_first, in_the_end).front().substr(0, 2), "5:");
}

TEST(an_area_that_cannot_be_sized, LeavesDescriptor0ToTheProgramInTheNextAttempt) {
    sandbox machine(low);
    client user = machine.start({"fail ftruncate EIO"});
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(user.limits(), whole_region(low));
    EXPECT_EQ(user.alloc("rx_ring", 4096), low.start_dma);
    const texts open = user.descriptors();
    EXPECT_EQ(open.front().substr(0, 2), "1:");
    EXPECT_EQ(open.at(2), "3:/var/lock/subsys/tarvo_lock:r:cloexec");
}

TEST(an_area_that_cannot_be_sized, IsNotCalledInitialised) {
    sandbox machine(low);
    client user = machine.start({"setenv ZUL_TRACE 5", "fail ftruncate EIO"});
    user.limits();
    EXPECT_EQ(user.error_text().find("Library initialized"), std::string::npos);
}

TEST(an_area_that_cannot_be_mapped, IsReportedAndTraced) {
    for (const world& chosen : all_worlds()) {
        sandbox machine(chosen);
        client user = machine.start({"fail mmap64 ENOMEM"});
        expect_failed_start(user, "tarvo_init: failed to map shared memory\n");
        EXPECT_EQ(mode_of(machine.lock_file()), "missing") << chosen;
        EXPECT_EQ(user.limits(), whole_region(chosen));
    }
    sandbox machine(low);
    client user = machine.start({"setenv ZUL_TRACE 3", "fail mmap64 ENOMEM"});
    user.limits();
    EXPECT_EQ(without_lines(user.error_text()),
              "tarvo_init: failed to map shared memory\n"
              "[tarvo:3] tarvo:LINE tarvo_init: tarvo_init: failed to map shared memory\n" +
                  not_ready);
}

TEST(an_area_whose_list_ends_nowhere, EndsTheProcess) {
    for (const size_t end : {area_offset::chunks_head, area_offset::chunks_tail}) {
        sandbox machine(simulation);
        machine.start().limits();
        machine.writable_area().writer().i32(end, 16384);
        client user = machine.start();
        EXPECT_EQ(user.dies("limits"), ended_by(SIGABRT));
        EXPECT_EQ(without_signatures(user.error_text()),
                  "tarvo-client: ./ArrayBackedList.hpp:159: SIGNATURE: Assertion "
                  "`idx >= 0 && idx < MAX' failed.\n");
        EXPECT_TRUE(lock_is_free(machine.lock_file()));
    }
}

// ---- The lock ----

TEST(a_lock_file_that_will_not_open, IsReportedByItsPathAndTraced) {
    for (const world& chosen : {simulation, high}) {
        sandbox machine(chosen);
        std::filesystem::create_directory(machine.lock_file());
        client user = machine.start();
        expect_failed_start(user, std::string(chosen.lock_path()) + ": Is a directory\n");
        std::filesystem::remove(machine.lock_file());
        EXPECT_EQ(user.limits(), whole_region(chosen));
    }
    sandbox machine(low, {"--without", "lockdir"});
    client user = machine.start({"setenv ZUL_TRACE 3"});
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(without_lines(user.error_text()),
              "/var/lock/subsys/tarvo_lock: No such file or directory\n"
              "[tarvo:3] tarvo:LINE tarvo_init: tarvo_init: couldn't initialize tarvo lock\n" +
                  not_ready);
}

TEST(a_lock_that_cannot_be_taken, UndoesTheStartWithoutTryingTwice) {
    sandbox machine(low);
    client user = machine.start({"setenv ZUL_TRACE 3", "fail flock EINTR"});
    const texts before = user.descriptors();
    EXPECT_EQ(user.limits(), failed);
    EXPECT_EQ(without_lines(user.error_text()),
              "tarvo: failed to accquire lock: Interrupted system call\n"
              "[tarvo:3] tarvo:LINE tarvo_init: tarvo_init: couldn't acquire tarvo lock\n" +
                  not_ready);
    EXPECT_EQ(user.descriptors(), before);
    const std::string calls = user.call("calls");
    EXPECT_EQ(calls.substr(calls.find("flock")),
              "flock(3,LOCK_EX)=-1 munmap(pointer,70131712)=0 close(4)=0 close(5)=0 close(3)=0");
    EXPECT_EQ(machine.area().view().initialized(), 0);
    EXPECT_EQ(user.limits(), whole_region(low));
}

TEST(a_lock_that_cannot_be_released, EndsTheProcessWithTheAreaBuilt) {
    sandbox machine(simulation);
    client user = machine.start({"fail flock EIO 2"});
    EXPECT_EQ(user.dies("limits"), ended_by(SIGABRT));
    EXPECT_EQ(user.error_text(), "tarvo: failed to release lock: Input/output error\n");
    EXPECT_EQ(area_breaches(machine.area().view()), texts{});
    EXPECT_EQ(machine.start().limits(), whole_region(simulation));
}

// ---- What every operation makes of it ----

TEST(an_operation_that_cannot_start_the_library, StartsItOnTheNextCall) {
    sandbox machine(low, {"--rule", "op=open-read,errno=EIO"});
    client user = machine.start();
    EXPECT_EQ(user.alloc("rx_ring", 4096), 0U);
    EXPECT_EQ(user.alloc("rx_ring", 4096), 0U);
    machine.replace_rules({});
    EXPECT_EQ(user.alloc("rx_ring", 4096), low.start_dma);
    EXPECT_EQ(user.free("rx_ring"), 0);
}

} // namespace

} // namespace start_up_failure_test
