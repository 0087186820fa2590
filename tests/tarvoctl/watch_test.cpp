#include "pattern.hpp"
#include "tool.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

namespace watch_test {

namespace {

running_tool start_watch(sandbox& machine, const arguments& more = {}) {
    return start_tarvoctl(machine, arguments{"watch", "--interval", "0.02"} + more);
}

/// The next line without its time, which has to be one.
std::string next_line(running_tool& watch) {
    const std::string line = watch.program.read_line().value_or("(end)");
    static const pattern time(
        "^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d\\d:\\d\\d  ");
    EXPECT_TRUE(time.is_in(line)) << line;
    return time.replaced_in(line, "");
}

TEST(watch, TellsWhatSeveralProcessesDoUntilInterrupted) {
    sandbox machine(low);
    client one = machine.start();
    client other = machine.start();
    one.alloc("a", 0x1000, "one");
    running_tool watch = start_watch(machine);
    EXPECT_EQ(next_line(watch), "area found    /var/shmem/tarvo_lib: 1 chunk, 0 devices");
    other.alloc("b", 0x2000, "other");
    EXPECT_EQ(next_line(watch), "allocated     b: 8 KiB at physical 0x0080001000, creator other");
    one.register_device(0, 3, 0);
    EXPECT_EQ(next_line(watch), "registered    0000:03:00.0");
    EXPECT_EQ(next_line(watch), "mapped        a: for 0000:03:00.0");
    EXPECT_EQ(next_line(watch), "mapped        b: for 0000:03:00.0");
    other.free("a");
    EXPECT_EQ(next_line(watch), "freed         a: 4 KiB at physical 0x0080000000, creator one");
    EXPECT_EQ(watch.end_by(SIGINT), normal_end);
    EXPECT_EQ(watch.program.error_text(), "");
}

TEST(watch, WaitsForAnAreaAndNoticesThatItIsMadeAnew) {
    sandbox machine(simulation);
    running_tool watch = start_watch(machine);
    EXPECT_TRUE(eventually([&] {
        return watch.program.error_text() == "tarvoctl: waiting for /var/tmp/tarvo_lib\n";
    }));
    machine.start().alloc("a", 0x1000, "one");
    // The area and its chunk are two steps, and both may be seen at once.
    const std::string found = next_line(watch);
    EXPECT_TRUE(found == "area found    /var/tmp/tarvo_lib: 0 chunks, 0 devices" ||
                found == "area found    /var/tmp/tarvo_lib: 1 chunk, 0 devices")
        << found;
    EXPECT_EQ(next_line(watch), "allocated     a: 4 KiB at physical 0x0000001000, creator one");
    std::filesystem::remove(machine.shared_area());
    EXPECT_EQ(next_line(watch), "area gone     /var/tmp/tarvo_lib");
    EXPECT_EQ(watch.end_by(SIGTERM), normal_end);
}

TEST(watch, AnAreaThatWasReplacedIsAnotherOne) {
    sandbox machine(low);
    const client driver = machine.start({"alloc a 1 one"});
    const temporary_folder folder;
    const auto aside = machine.shared_area().parent_path() / "aside";
    std::filesystem::copy_file(machine.shared_area(), aside);
    running_tool watch = start_watch(machine);
    EXPECT_EQ(next_line(watch), "area found    /var/shmem/tarvo_lib: 1 chunk, 0 devices");
    std::filesystem::rename(aside, machine.shared_area());
    EXPECT_EQ(next_line(watch), "area replaced  /var/shmem/tarvo_lib: 1 chunk, 0 devices");
    EXPECT_EQ(next_line(watch), "allocated     a: 4 KiB at physical 0x0080000000, creator one");
    EXPECT_EQ(watch.end_by(SIGTERM), normal_end);
}

TEST(watch, GivesALineOfJsonForEachChange) {
    sandbox machine(high);
    client driver = machine.start({"limits"});
    running_tool watch = start_watch(machine, {"--json"});
    const auto next = [&watch] { return nlohmann::json::parse(watch.program.read_line().value()); };
    const auto found = next();
    EXPECT_EQ(found.at("schema"), 1);
    EXPECT_EQ(found.at("command"), "watch");
    EXPECT_EQ(found.at("change"), "area_found");
    EXPECT_EQ(found.at("chunk_count"), 0);
    driver.alloc("a", 0x1000, "one");
    const auto allocated = next();
    EXPECT_EQ(allocated.at("change"), "allocated");
    EXPECT_EQ(allocated.at("chunk").at("pa").at("hex"), "0x200000000");
    EXPECT_EQ(allocated.at("before"), nullptr);
    EXPECT_EQ(allocated.at("device"), nullptr);
    EXPECT_EQ(allocated.at("time").get<std::string>().size(), 24);
    driver.register_device(0, 3, 0);
    EXPECT_EQ(next().at("device"), "0000:03:00.0");
    EXPECT_EQ(next().at("chunk").at("name"), "a");
    watch.end_by(SIGINT);
}

TEST(watch, ListsThatCannotBeReadAreNotTakenForFreedChunks) {
    sandbox machine(low);
    client driver = machine.start({"alloc a 1 test", "alloc b 1 test"});
    running_tool watch = start_watch(machine);
    next_line(watch);
    const auto link = area_offset::chunk(2) + area_offset::next;
    machine.writable_area().writer().i32(link, 2);
    EXPECT_EQ(next_line(watch),
              "damaged       the list of chunks is damaged: it leads back to element 2");
    machine.writable_area().writer().i32(link, 3);
    driver.alloc("c", 0x1000);
    EXPECT_EQ(next_line(watch), "allocated     c: 4 KiB at physical 0x0080002000, creator test");
    watch.end_by(SIGINT);
}

TEST(watch, ALockThatStaysTakenIsReportedOnceAndWaitedFor) {
    sandbox machine(simulation);
    client driver = machine.start({"alloc a 1 test"});
    running_tool watch = start_watch(machine, {"--timeout", "0.01"});
    next_line(watch);
    {
        const held_lock held(machine.lock_file());
        EXPECT_TRUE(eventually([&] { return !watch.program.error_text().empty(); }));
        usleep(100'000);
    }
    driver.free("a");
    EXPECT_EQ(next_line(watch), "freed         a: 4 KiB at physical 0x0000001000, creator test");
    EXPECT_EQ(
        watch.program.error_text(),
        "tarvoctl: the lock /var/tmp/tarvo_lock was not free within 0.01 s: " + this_process() +
            " holds it; 'tarvoctl lock' shows more, --timeout waits longer, --no-lock reads "
            "without it. Waiting\n");
    watch.end_by(SIGINT);
}

TEST(watch, HoldsNobodyUpWhileItsReaderIsSlow) {
    sandbox machine(simulation);
    client driver = machine.start({"limits"});
    running_tool watch = start_watch(machine);
    next_line(watch);
    // More than its pipe takes, and nobody reads.
    for (int i = 0; i < 600; ++i) {
        driver.alloc("chunk_with_a_long_name_" + std::to_string(i), 0x1000, std::string(99, 'c'));
    }
    usleep(200'000);
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    EXPECT_EQ(watch.end_by(SIGKILL), ended_by(SIGKILL));
}

TEST(watch, WrongIntervalsAreUsageErrors) {
    sandbox machine(low);
    for (const char* wrong : {"0", "-1", "x", "1e9"}) {
        EXPECT_EQ(tarvoctl(machine, {"watch", "--interval", wrong}).status, 2) << wrong;
    }
}

} // namespace

} // namespace watch_test
