#include "pattern.hpp"
#include "terminal.hpp"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <termios.h>

namespace top_test {

namespace {

/// What a page shows, without the escapes.
std::string plain(const std::string& output) {
    static const pattern escape("\x1b\\[[?0-9;]*[A-Za-z]");
    std::string text = escape.replaced_in(output, "");
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

constexpr const char* on_the_way_out = "\x1b[?7h\x1b[?25h\x1b[?1049l";

class top_screen : public ::testing::Test {
  protected:
    top_screen() {
        driver.alloc("rx_ring", 0x10000, "driver");
        driver.alloc("big", 0x100000, "agent");
        driver.register_device(0, 3, 0);
        driver.map("rx_ring");
    }

    sandbox machine{low};
    client driver = machine.start();
};

TEST_F(top_screen, PrintsOnePageWhereThereIsNoTerminal) {
    const auto outcome = tarvoctl(machine, {"top"});
    EXPECT_EQ(outcome.status, 0);
    const auto lines = lines_of(outcome.output);
    ASSERT_EQ(lines.size(), 13);
    const pattern first("tarvoctl top  \\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d[+-]\\d\\d:\\d\\d  "
                        "/var/shmem/tarvo_lib");
    EXPECT_TRUE(first.matches(lines[0])) << lines[0];
    EXPECT_EQ(lines[1], "region  DMA 0x80000000-0x8fffffff  physical 0x0080000000-0x008fffffff");
    EXPECT_EQ(lines[4],
              "free    261056 KiB of 262144 KiB, largest gap 261056 KiB, fragmentation 0 %");
    EXPECT_TRUE(starts_with(
        lines[5], "in use  2 of 16382 chunk records, 1 of 256 device records, by 1 process"));
    EXPECT_EQ(lines[7], "  SIZE  NAME     HOLDERS  DMA         CREATOR  DEVICES");
    EXPECT_EQ(lines[8], " 1 MiB  big            0  0x80010000  agent    0000:03:00.0");
    EXPECT_EQ(lines[9], "64 KiB  rx_ring        1  0x80000000  driver   0000:03:00.0");
    EXPECT_EQ(lines[11], "DEVICE        STATE   CHUNKS");
    EXPECT_EQ(lines[12], "0000:03:00.0  online       2");
}

TEST_F(top_screen, WithoutAnAreaAndATerminalItSaysSo) {
    sandbox empty(simulation);
    EXPECT_EQ(tarvoctl(empty, {"top"}).status, 3);
    EXPECT_FALSE(exists(empty.shared_area()));
}

TEST_F(top_screen, FillsTheScreenFollowsChangesAndEndsWithQ) {
    terminal screen(24, 80);
    const termios before = screen.mode();
    running_tool top = screen.start(machine, {"top", "--interval", "0.05"});
    EXPECT_TRUE(screen.output_with("0000:03:00.0  online       2")
                    .starts_with("\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[H"));
    EXPECT_EQ(screen.mode().c_lflag & static_cast<tcflag_t>(ICANON | ECHO), 0U);
    driver.alloc("fresh", 0x200000, "driver");
    EXPECT_TRUE(contains(plain(screen.output_with("fresh")), " 2 MiB  fresh"));
    screen.type("xq");
    EXPECT_EQ(top.program.wait(), normal_end);
    EXPECT_TRUE(ends_with(screen.output_with(on_the_way_out), on_the_way_out));
    EXPECT_EQ(screen.mode().c_lflag, before.c_lflag);
    EXPECT_EQ(screen.mode().c_cc[VSUSP], before.c_cc[VSUSP]);
}

TEST_F(top_screen, GivesTheTerminalBackWhenASignalEndsIt) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        terminal screen(24, 80);
        const termios before = screen.mode();
        running_tool top = screen.start(machine, {"top", "--interval", "0.05"});
        screen.output_with("0000:03:00.0  online");
        const ending end = top.end_by(signal);
        EXPECT_EQ(end.status == 0, signal != SIGHUP) << shown(end);
        EXPECT_TRUE(ends_with(screen.output_with(on_the_way_out), on_the_way_out));
        EXPECT_EQ(screen.mode().c_lflag, before.c_lflag);
    }
}

TEST_F(top_screen, FitsEveryPageIntoTheScreenAsItIsNow) {
    driver.fill("chunk_", 40);
    terminal screen(24, 80);
    running_tool top = screen.start(machine, {"top", "--interval", "3600"});
    const std::string large = plain(screen.output_with("q quit"));
    EXPECT_EQ(std::count(large.begin(), large.end(), '\n'), 23);
    EXPECT_TRUE(contains(large, "of 42 by size"));
    const size_t from = screen.seen();
    screen.resize(12, 40);
    kill(top.pid, SIGWINCH); // as the kernel does for the terminal's own session
    const std::string small = plain(screen.output_with("1-8 of 42 by size", from).substr(from));
    EXPECT_EQ(std::count(small.begin(), small.end(), '\n'), 11);
    for (const std::string& line : lines_of(small)) {
        if (line.find('|') == std::string::npos) {
            EXPECT_LE(line.size(), 40) << line;
        }
    }
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

bool waits_in_a_write(pid_t pid) {
    return file_text("/proc/" + std::to_string(pid) + "/syscall")
        .starts_with(std::to_string(SYS_write) + " ");
}

TEST_F(top_screen, FitsASizeThatChangedWhileAPageWasWritten) {
    driver.fill("chunk_", 1200); // in lines of 80 bytes, more than a terminal takes unread
    terminal screen(1300, 80);
    running_tool top = screen.start(machine, {"top", "--interval", "3600"});
    ASSERT_TRUE(eventually([&] { return waits_in_a_write(top.pid); }));
    screen.resize(12, 40);
    kill(top.pid, SIGWINCH);
    screen.output_with("1-8 of 1202");
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

TEST_F(top_screen, FitsASizeThatChangesWhereItsParentBlocksTheSignal) {
    terminal screen(24, 80);
    sigset_t size_changes{};
    sigset_t before{};
    sigaddset(&size_changes, SIGWINCH);
    sigprocmask(SIG_BLOCK, &size_changes, &before);
    running_tool top = screen.start(machine, {"top", "--interval", "3600"});
    sigprocmask(SIG_SETMASK, &before, nullptr);
    screen.output_with("1-2 of 2");
    screen.resize(6, 40);
    kill(top.pid, SIGWINCH);
    screen.output_with("1-2 of 2 by size  s jk hl  q quit");
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

/// The last page that was drawn.
std::string last_page(const std::string& output) {
    return plain(output.substr(output.rfind("\x1b[H")));
}

TEST_F(top_screen, ShowsChunksOnASmallScreenScrollsAndSorts) {
    driver.free("big");
    driver.free("rx_ring");
    for (int i = 10; i < 40; ++i) {
        driver.alloc("chunk_" + std::to_string(i), 0x1000U * static_cast<uint32_t>(i));
    }
    terminal screen(10, 40);
    running_tool top = screen.start(machine, {"top", "--interval", "30"});
    const auto page_after = [&](const std::string& keys, const std::string& footer) {
        const size_t from = screen.seen();
        screen.type(keys);
        return lines_of(last_page(screen.output_with(footer, from)));
    };
    auto page = page_after("", "1-6 of 30 by size  s jk hl  q quit");
    ASSERT_EQ(page.size(), 10);
    EXPECT_TRUE(contains(page[3], "chunk_39"));
    for (const std::string& line : page) {
        EXPECT_LE(line.size(), 40) << line;
    }
    page = page_after("j", "2-7 of 30");
    EXPECT_TRUE(contains(page[3], "chunk_38"));
    page_after("\x1b[B", "3-8 of 30");
    page_after("\x1b[6~", "9-14 of 30");
    page_after("k", "8-13 of 30");
    page_after("\x1b[5~", "2-7 of 30");
    page = page_after("\x1b[F", "25-30 of 30");
    EXPECT_TRUE(contains(page[8], "chunk_10"));
    page_after("j\x1b[H", "1-6 of 30");
    page = page_after("s", "1-6 of 30 by name");
    EXPECT_TRUE(contains(page[3], "chunk_10"));
    page_after("s", "1-6 of 30 by address");
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

/// The last page, once it is whole. Several keys draw several pages, and the last one has `seen`.
std::string whole_page(terminal& screen, const std::string& seen, size_t from) {
    const std::string& output = screen.output_with(seen, from);
    size_t start = 0;
    do {
        start = output.rfind("\x1b[H");
        screen.output_with("q quit", start);
    } while (output.rfind("\x1b[H") != start);
    return last_page(output);
}

TEST_F(top_screen, ShowsEveryColumnOnANarrowScreen) {
    driver.alloc(std::string(49, 'n'), 0x200000, "somebody");
    terminal screen(10, 40);
    running_tool top = screen.start(machine, {"top", "--interval", "30"});
    const auto page_after = [&](const std::string& keys, const std::string& seen) {
        const size_t from = screen.seen();
        screen.type(keys);
        return lines_of(whole_page(screen, seen, from));
    };
    const std::string half_name(20, 'n');
    auto page = page_after("", "SIZE");
    EXPECT_EQ(page[3], " 2 MiB  " + std::string(32, 'n'));
    page = page_after("l", "HOLDERS");
    EXPECT_EQ(page[2], "NAME                  HOLDERS  DMA      ");
    EXPECT_EQ(page[3], half_name + "        0  0x8011000");
    page = page_after("\x1b[C\x1bOC", "CREATOR");
    EXPECT_EQ(page[3], half_name + "  somebody  0000:03:");
    page = page_after("ll", "DEVICES");
    EXPECT_EQ(page[2], "NAME                  DEVICES");
    EXPECT_EQ(page[3], half_name + "  0000:03:00.0");
    page = page_after("\x1b[Dhh\x1bODh", "SIZE");
    EXPECT_EQ(page[3], " 2 MiB  " + std::string(32, 'n'));
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

TEST_F(top_screen, TheFooterEndsWithTheWayOutAtEveryWidth) {
    for (const auto& [width, footer] : std::vector<std::pair<unsigned short, std::string>>{
             {20, "q quit"},
             {30, "1-2 of 2 by size  q quit"},
             {60, "1-2 of 2 by size  s sort  jk scroll  hl columns  q quit"},
             {80, "1-2 of 2 by size  s sort  jk scroll  hl columns  PgUp PgDn Home End  q quit"}}) {
        terminal screen(16, width);
        running_tool top = screen.start(machine, {"top", "--interval", "30"});
        EXPECT_EQ(lines_of(last_page(screen.output_with("q quit"))).back(), footer);
        screen.type("q");
        EXPECT_EQ(top.program.wait(), normal_end);
    }
}

TEST_F(top_screen, ShowsTheLastPictureWhileTheLockIsTaken) {
    terminal screen(24, 100);
    running_tool top = screen.start(machine, {"top", "--interval", "0.05", "--timeout", "0.05"});
    screen.output_with("0000:03:00.0  online");
    const size_t from = screen.seen();
    const held_lock held(machine.lock_file());
    screen.output_with("OLD: the lock is not free", from);
    screen.output_with("rx_ring", screen.seen() > 200 ? screen.seen() - 200 : 0);
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

TEST_F(top_screen, NamesTheHolderOfALockThatItNeverGot) {
    const held_lock held(machine.lock_file());
    terminal screen(24, 100);
    running_tool top = screen.start(machine, {"top", "--interval", "0.05", "--timeout", "0.05"});
    screen.output_with(" was not free within 0.05 s: " + this_process() + " holds it");
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

TEST(top_without_an_area, WaitsForIt) {
    sandbox machine(simulation);
    terminal screen(24, 80);
    running_tool top = screen.start(machine, {"top", "--interval", "0.05"});
    screen.output_with("There is no area.");
    machine.start().alloc("first_chunk", 0x1000);
    screen.output_with("first_chunk");
    screen.type("q");
    EXPECT_EQ(top.program.wait(), normal_end);
}

} // namespace

} // namespace top_test
