#include "tool.hpp"

#include <gtest/gtest.h>

// Files that are too short, and file systems that are too full, for what the library maps of them.

namespace {

constexpr const char* area = "/var/tmp/tarvo_lib";

/// Runs a command in the sandbox that has to succeed.
void run(sandbox& where, const std::vector<std::string>& words) {
    const auto outcome = run_program(where, words);
    ASSERT_EQ(outcome.status, 0) << words.front() << ": " << outcome.errors;
}

/// A simulation whose files lie on a file system of that size in memory.
class room_of {
  public:
    explicit room_of(const std::string& size) {
        run(machine, {"mount", "-t", "tmpfs", "-o", "mode=1777,size=" + size, "none", "/var/tmp"});
    }

    sandbox machine{simulation};
};

/// All that read the records.
const std::vector<std::vector<std::string>> readers{
    {"list"},     {"show", "a"},     {"devices"},
    {"limits"},   {"who"},           {"map"},
    {"leaks"},    {"find", "16384"}, {"translate", "16384"},
    {"dump"},     {"check"},         {"top"},
    {"watch"},    {"diff", area},    {"snapshot", "/copy"},
    {"read", "a"}};

void expect_a_sentence(const tool_outcome& outcome, const std::string& command) {
    EXPECT_GE(outcome.status, 0) << command << " was ended by a signal";
    EXPECT_TRUE(outcome.errors.starts_with("tarvoctl: ") || !outcome.output.empty())
        << command << " ended with " << outcome.status << " and said nothing";
}

TEST(Room, ReadersSurviveAnAreaWhoseFileSystemIsFull) {
    room_of small("8m");
    run(small.machine, {"truncate", "-s", "70131712", area});
    run(small.machine,
        {"sh", "-c", "head -c 9M /dev/zero >/var/tmp/filler; test -s /var/tmp/filler"});
    for (const auto& words : readers) {
        if (words.front() != "watch") { // which waits for the area to be built
            expect_a_sentence(tarvoctl(small.machine, words), words.front());
        }
    }
    const auto listed = tarvoctl(small.machine, {"list"});
    EXPECT_EQ(listed.status, 3);
    EXPECT_EQ(listed.errors, "tarvoctl: /var/tmp/tarvo_lib is not built yet: no program has "
                             "started the library on it\n");
}

TEST(Room, ReadersSayThatAnAreaIsCutShortAndWhatHelps) {
    sandbox machine(simulation);
    machine.start({"alloc a 4096 me"}).finish();
    std::filesystem::resize_file(machine.shared_area(), 4096);
    for (const auto& words : readers) {
        const auto outcome = tarvoctl(machine, words);
        EXPECT_EQ(outcome.status, 4) << words.front();
        EXPECT_EQ(outcome.errors,
                  "tarvoctl: /var/tmp/tarvo_lib is 4096 bytes, an area takes 70130716: it was cut "
                  "short; end all programs that use it, then rm /var/tmp/tarvo_lib\n")
            << words.front();
    }
}

} // namespace
