#include "observed.hpp"
#include "sandbox.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace start_up_test {

namespace {

namespace offset = area_offset;

constexpr std::uintmax_t simulated_memory_bytes = 713035776;
constexpr std::uintmax_t area_bytes_of_4k_pages = 70131712;
constexpr std::uintmax_t area_bytes_of_64k_pages = 70189056;

void chain_free_elements(const area_writer& area, size_t (*element)(int), int first, int count) {
    for (int i = first; i < count - 1; i++) {
        area.i32(element(i) + offset::next, i + 1);
    }
    area.i32(element(count - 1) + offset::next, -1);
}

void write_sentinel(const area_writer& area, int index, int other, const char* name, uint64_t pa) {
    const size_t at = offset::chunk(index);
    area.i32(at + offset::next, other);
    area.i32(at + offset::prev, other);
    area.u8(at + offset::allocated, 1);
    area.text(at + offset::name, name);
    area.u64(at + offset::pa, pa);
}

/// Every byte of a shared area that nobody has used yet.
std::vector<uint8_t> new_area(const world& chosen) {
    std::vector<uint8_t> bytes(rounded_to_pages(offset::content_end));
    const area_writer area(bytes);
    area.u8(offset::initialized, 1);
    write_sentinel(area, 0, 1, "__HEAD", chosen.start);
    write_sentinel(area, 1, 0, "__TAIL", chosen.end());
    chain_free_elements(area, offset::chunk, 2, 16384);
    chain_free_elements(area, offset::device, 0, 256);
    area.i32(offset::chunks_head, 0);
    area.i32(offset::chunks_tail, 1);
    area.i32(offset::chunks_free, 2);
    area.i32(offset::devices_head, -1);
    area.i32(offset::devices_tail, -1);
    area.i32(offset::devices_free, 0);
    return bytes;
}

dma_limits whole_region(const world& chosen) {
    return {0, chosen.start_dma, chosen.end_dma()};
}

class start_up : public testing::TestWithParam<world> {};

TEST_P(start_up, BuildsTheSharedAreaByteForByte) {
    sandbox machine(GetParam());
    client user = machine.start();
    user.limits();
    const area_file area = machine.area();
    EXPECT_EQ(area_breaches(area.view()), std::vector<std::string>{});
    EXPECT_EQ(first_difference(area.snapshot(), new_area(GetParam())), "");
}

TEST_P(start_up, BuildsAnewAnAreaThatIsNotMarkedInitialised) {
    sandbox machine(GetParam());
    std::vector<char> leftover(area_bytes_of_4k_pages + 12345, '\x5a');
    leftover.front() = 0;
    std::ofstream(machine.shared_area(), std::ios::binary)
        .write(leftover.data(), static_cast<std::streamsize>(leftover.size()));
    client user = machine.start();
    EXPECT_EQ(user.limits(), whole_region(GetParam()));
    EXPECT_EQ(first_difference(machine.area().view().bytes(), new_area(GetParam())), "");
}

TEST_P(start_up, LeavesAnInitialisedAreaAsItIs) {
    sandbox machine(GetParam());
    client first = machine.start();
    first.alloc("rx_ring", 5000);
    const std::vector<uint8_t> before = machine.area().snapshot();
    client second = machine.start();
    EXPECT_EQ(second.limits(), whole_region(GetParam()));
    EXPECT_EQ(first_difference(machine.area().view().bytes(), before), "");
    EXPECT_EQ(second.error_text(), "");
}

TEST_P(start_up, TakesTheSentinelsFromTheListEndsOfAnInitialisedArea) {
    sandbox machine(GetParam());
    machine.start().limits();
    {
        const area_file area = machine.writable_area();
        const area_writer change = area.writer();
        change.u8(offset::initialized, 2);
        change.i32(offset::chunks_head, 7);
        change.i32(offset::chunks_tail, 3);
        change.u64(offset::chunk(7) + offset::pa, 0x1234000);
        change.u64(offset::chunk(3) + offset::pa, 0x5678000);
    }
    client second = machine.start();
    EXPECT_EQ(second.limits(), (dma_limits{0, 0x1234000, 0x5678000}));
    EXPECT_EQ(second.error_text(), "");
}

TEST_P(start_up, OpensItsThreeFilesCloseOnExecAndNothingElse) {
    sandbox machine(GetParam());
    client user = machine.start();
    const std::vector<std::string> before = user.descriptors();
    user.limits();
    const std::vector<std::string> in_simulation{"3:/var/tmp/tarvo:rw:cloexec",
                                                 "4:/var/tmp/tarvo_lib:rw:cloexec",
                                                 "5:/var/tmp/tarvo_lock:r:cloexec"};
    const std::vector<std::string> on_hardware{"3:/var/lock/subsys/tarvo_lock:r:cloexec",
                                               "4:/dev/mem:rw:cloexec",
                                               "5:/var/shmem/tarvo_lib:rw:cloexec"};
    EXPECT_EQ(added(before, user.descriptors()),
              GetParam().simulated ? in_simulation : on_hardware);
}

/// What the kernel knows of the program's mapping of that file: its line of flags.
std::string flags_of_mapping(pid_t pid, const std::string& file) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/smaps");
    bool is_inside = false;
    for (std::string line; std::getline(maps, line);) {
        is_inside = is_inside || line.ends_with(file);
        if (is_inside && line.starts_with("VmFlags:")) {
            return line;
        }
    }
    return "";
}

TEST_P(start_up, AsksForLargePagesForTheAreaWhereTheKernelHasThem) {
    sandbox machine(GetParam());
    client user = machine.start({"limits"});
    const bool kernel_has_them =
        std::filesystem::exists("/sys/kernel/mm/transparent_hugepage/enabled");
    const std::string flags = flags_of_mapping(user.pid(), "/tarvo_lib");
    EXPECT_NE(flags, "");
    EXPECT_EQ(flags.find(" hg") != std::string::npos, kernel_has_them) << flags;
}

TEST_P(start_up, RestoresTheCallersUmask) {
    sandbox machine(GetParam());
    client user = machine.start({"umask 0137"});
    user.limits();
    EXPECT_EQ(user.call("umask"), "0137");
}

TEST_P(start_up, IsDoneOnceWithoutAFurtherSystemCall) {
    sandbox machine(GetParam());
    client user = machine.start();
    user.limits();
    user.call("calls");
    user.call("no_system_calls");
    EXPECT_EQ(user.limits(), whole_region(GetParam()));
    EXPECT_EQ(user.to_pa(GetParam().start_dma), GetParam().start);
    EXPECT_EQ(user.call("calls"), "");
    // The next call needs the lock, which shows that the ban is in force.
    EXPECT_EQ(user.dies("free nothing"), ended_by(SIGSYS));
}

TEST_P(start_up, RacedByManyProcessesBuildsTheAreaOnce) {
    sandbox machine(GetParam());
    constexpr int racers = 16;
    std::vector<client> users;
    users.reserve(racers);
    for (int i = 0; i < racers; i++) {
        users.push_back(machine.start({"setenv ZUL_TRACE tarvo=5"}));
    }
    for (client& user : users) {
        user.send("limits");
    }
    int builders = 0;
    for (client& user : users) {
        EXPECT_EQ(user.reply().substr(0, 2), "0 ");
        EXPECT_EQ(user.limits(), whole_region(GetParam()));
        builders += user.error_text().find("Initialized chunk list") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(builders, 1);
    EXPECT_EQ(first_difference(machine.area().view().bytes(), new_area(GetParam())), "");
}

TEST_P(start_up, MakesTheAreaAsLongAsWholePagesNeed) {
    sandbox machine(GetParam());
    machine.start().limits();
    EXPECT_EQ(std::filesystem::file_size(machine.shared_area()), area_bytes_of_4k_pages);
    std::filesystem::remove(machine.shared_area());
    machine.start({"pretend_page_bytes 65536"}).limits();
    EXPECT_EQ(std::filesystem::file_size(machine.shared_area()), area_bytes_of_64k_pages);
}

INSTANTIATE_TEST_SUITE_P(, start_up, testing::ValuesIn(all_worlds()), world_name());

TEST(start_up_in_simulation, CreatesItsFilesForEverybodyWhateverTheUmask) {
    sandbox machine(simulation);
    machine.start({"umask 077"}).limits();
    EXPECT_EQ(mode_of(machine.simulated_memory()), "0666");
    EXPECT_EQ(mode_of(machine.simulated_area()), "0666");
    EXPECT_EQ(mode_of(machine.simulated_lock()), "0666");
    EXPECT_EQ(std::filesystem::file_size(machine.simulated_memory()), simulated_memory_bytes);
}

TEST(start_up_in_simulation, AsksForItsFilesInTheOrderThatOthersRelyOn) {
    sandbox machine(simulation);
    client user = machine.start({"umask 022"});
    user.limits();
    EXPECT_EQ(user.call("calls"),
              "umask(00)=022 open(/var/tmp/tarvo,O_RDWR|O_CREAT|O_CLOEXEC,0666)=3 umask(022)=00 "
              "ftruncate(3,713035776)=0 "
              "umask(00)=022 open(/var/tmp/tarvo_lib,O_RDWR|O_CREAT|O_CLOEXEC,0666)=4 "
              "umask(022)=00 "
              "ftruncate(4,70131712)=0 mmap64(null,70131712,3,1,4,0)=pointer "
              "umask(00)=022 open(/var/tmp/tarvo_lock,O_RDONLY|O_CREAT|O_CLOEXEC,0666)=5 "
              "umask(022)=00 flock(5,LOCK_EX)=0 flock(5,LOCK_UN)=0");
}

TEST(start_up_in_simulation, IsSelectedByTheVariableWhateverItsValue) {
    sandbox machine(low);
    client user = machine.start({"setenv SIMULATION_VMID \"\""});
    EXPECT_EQ(user.limits(), whole_region(simulation));
    EXPECT_EQ(mode_of(machine.simulated_lock()), "0666");
    EXPECT_EQ(machine.driver_log(), std::vector<std::string>{});
}

TEST(start_up_in_simulation, IsSelectedByAnExistingMemoryFileWithoutTheVariable) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()) << "any content";
    client user = machine.start();
    EXPECT_EQ(user.limits(), whole_region(simulation));
    EXPECT_EQ(std::filesystem::file_size(machine.simulated_memory()), simulated_memory_bytes);
    EXPECT_EQ(mode_of(machine.simulated_area()), "0666");
    EXPECT_EQ(machine.driver_log(), std::vector<std::string>{});
    EXPECT_EQ(user.error_text(), "");
}

TEST(start_up_in_simulation, WithoutTheVariableUsesTheHardwareLockOpenToEverybody) {
    sandbox machine(low);
    std::ofstream(machine.simulated_memory()).flush();
    machine.start({"umask 077"}).limits();
    EXPECT_EQ(mode_of(machine.hardware_lock()), "0666");
    EXPECT_EQ(mode_of(machine.simulated_lock()), "missing");
}

TEST(start_up_in_simulation, KeepsWhatTheMemoryFileHolds) {
    sandbox machine(simulation);
    std::ofstream(machine.simulated_memory()) << "older content";
    machine.start().limits();
    std::string content(13, ' ');
    std::ifstream(machine.simulated_memory()).read(content.data(), 13);
    EXPECT_EQ(content, "older content");
}

TEST(start_up_on_hardware, CreatesItsFilesForItsOwnerAlone) {
    sandbox machine(low);
    machine.start({"umask 0"}).limits();
    EXPECT_EQ(mode_of(machine.hardware_area()), "0600");
    EXPECT_EQ(mode_of(machine.hardware_lock()), "0600");
    EXPECT_EQ(mode_of(machine.simulated_memory()), "missing");
    EXPECT_EQ(mode_of(machine.simulated_area()), "missing");
    EXPECT_EQ(mode_of(machine.simulated_lock()), "missing");
}

TEST(start_up_on_hardware, AppliesTheUmaskToTheAreaAndNotToTheLock) {
    sandbox machine(low);
    machine.start({"umask 0277"}).limits();
    EXPECT_EQ(mode_of(machine.hardware_area()), "0400");
    EXPECT_EQ(mode_of(machine.hardware_lock()), "0600");
}

TEST(start_up_on_hardware, AsksForItsFilesInTheOrderThatOthersRelyOn) {
    sandbox machine(high);
    client user = machine.start({"umask 022"});
    user.limits();
    EXPECT_EQ(user.call("calls"),
              "umask(00)=022 open(/var/tmp/tarvo,O_RDWR|O_CLOEXEC)=-1 umask(022)=00 "
              "fopen(/proc/tarvo,re)=pointer open(/dev/mem,O_RDWR|O_CLOEXEC)=4 "
              "open(/var/shmem/tarvo_lib,O_RDWR|O_CREAT|O_CLOEXEC,0600)=5 fclose(stream)=0 "
              "ftruncate(5,70131712)=0 mmap64(null,70131712,3,1,5,0)=pointer "
              "umask(00)=022 open(/var/lock/subsys/tarvo_lock,O_RDONLY|O_CREAT|O_CLOEXEC,0600)=3 "
              "umask(022)=00 flock(3,LOCK_EX)=0 flock(3,LOCK_UN)=0");
    EXPECT_EQ(machine.driver_log(), (std::vector<std::string>{"proc open r", "proc close"}));
}

TEST(start_up_on_hardware, LeavesTheMemoryDeviceAsLongAsItIs) {
    sandbox machine(low);
    const std::uintmax_t before = std::filesystem::file_size(machine.physical_memory());
    machine.start().limits();
    EXPECT_EQ(std::filesystem::file_size(machine.physical_memory()), before);
}

TEST(start_up_on_hardware, TakesChunksFromTheDriverOnlyForTheExactNameCma) {
    for (const auto& [name, commands] :
         {std::pair{"CMA", 1U}, {"CMA2", 0U}, {"cma", 0U}, {"XCMA", 0U}}) {
        sandbox machine(cma, {"--region", std::string("100000000-13fffffff:") + name});
        client user = machine.start();
        EXPECT_EQ(user.limits(), (dma_limits{0, 0x20000000, 0x60000000})) << name;
        EXPECT_EQ(user.alloc("rx_ring", 4096), 0x20000000U) << name;
        EXPECT_EQ(machine.cma_commands().size(), commands) << name;
    }
}

struct region_line {
    const char* text;
    dma_limits limits;
};

TEST(start_up_on_hardware, ReadsEveryFormOfRegionLine) {
    const std::vector<region_line> lines{
        {R"(80000000\t8fffffff\t0\ttarvo)", {0, 0x80000000, 0x90000000}},
        {R"(80000000\t8fffffff\tdeadbeef\ttarvo)", {0, 0x80000000, 0x90000000}},
        {R"(0x80000000 0x8FFFFFFF 0 any words after)", {0, 0x80000000, 0x90000000}},
        {R"(80000000\t80000001\t0\ttarvo)", {0, 0x80000000, 0x80000002}},
        // The size is kept in 32 bits.
        {R"(100000000\t2ffffffff\t0\ttarvo)", {0, 0x20000000, 0x20000000}},
        {R"(100000000\t200000fff\t0\ttarvo)", {0, 0x20000000, 0x20001000}},
        // Only the first line counts.
        {R"(80000000\t8fffffff\t0\ttarvo\n90000000\t9fffffff\t0\ttarvo)",
         {0, 0x80000000, 0x90000000}},
    };
    for (const region_line& line : lines) {
        sandbox machine(low, {"--region-line", line.text});
        client user = machine.start();
        EXPECT_EQ(user.limits(), line.limits) << line.text;
        EXPECT_EQ(user.error_text(), "") << line.text;
    }
}

} // namespace

} // namespace start_up_test
