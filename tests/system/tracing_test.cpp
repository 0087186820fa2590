#include "observed.hpp"
#include "pattern.hpp"

#include <gtest/gtest.h>
#include <set>

namespace tracing_test {

namespace {

const std::string simulation_start =
    "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: Library initialized at 0x1000 of size 2a800000\n"
    "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: Initialized chunk list with HEAD 0x1000 and TAIL "
    "0x2a801000\n"
    "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: HEAD: 0x1000, TAIL: 0x2a801000\n";

/// Some of everything that is traced, at every level.
void use_the_library(client& user) {
    user.alloc("rx_ring", 4096);
    user.alloc("rx_ring", 8192);
    user.register_device(0, 3, 0);
    user.unmap("rx_ring", user.map("rx_ring"));
    user.map("nothing");
    user.find(user.to_dma(user.to_pa(0x1000)));
    user.dump();
    user.call("map_all");
    user.call("unmap_all");
    user.unregister_device(0, 3, 0);
    user.free("rx_ring");
    user.free("rx_ring");
    user.free("nothing");
}

TEST(tracing, WritesNothingUnlessItIsAskedFor) {
    sandbox machine(simulation);
    client user = machine.start({"unsetenv ZUL_TRACE"});
    use_the_library(user);
    EXPECT_EQ(user.error_text(), size_mismatch);
}

TEST(tracing, WritesNothingForOtherFacilitiesAndLowerLevels) {
    sandbox machine(simulation);
    for (const char* setting : {"", "other=6", "tarvo=2", "2", "tarvo", "tarvo=", "tarvo=high",
                                "tarvo=6x", "other=6,tarvo=1", "tarvox=6"}) {
        client user = machine.start({"setenv ZUL_TRACE " + quoted(setting)});
        use_the_library(user);
        EXPECT_EQ(user.error_text(), size_mismatch) << setting;
    }
}

TEST(tracing, IsEnabledForOneFacilityForAllOrInAList) {
    for (const char* setting :
         {"tarvo=5", "5", "other=1,tarvo=5", "tarvo=5,other=1", "tarvo=3,5"}) {
        sandbox machine(simulation);
        client user = machine.start({"setenv ZUL_TRACE " + quoted(setting)});
        user.limits();
        EXPECT_EQ(without_lines(user.error_text()), simulation_start) << setting;
    }
}

TEST(tracing, OfAStartInSimulationReportsWhatWasFoundAndBuilt) {
    sandbox machine(simulation);
    client first = machine.start({"setenv ZUL_TRACE 5"});
    first.limits();
    EXPECT_EQ(without_lines(first.error_text()), simulation_start);
    client second = machine.start({"setenv ZUL_TRACE 5"});
    second.limits();
    EXPECT_EQ(without_lines(second.error_text()),
              "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: Library initialized at 0x1000 of size "
              "2a800000\n"
              "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: HEAD: 0x1000, TAIL: 0x2a801000\n");
}

TEST(tracing, OfAStartOnHardwareShowsTheDriversLineWithItsNewline) {
    sandbox machine(high);
    client user = machine.start({"setenv ZUL_TRACE 5"});
    user.limits();
    EXPECT_EQ(without_lines(user.error_text()),
              "[tarvo:5] tarvo:LINE tarvo_sim_init: tarvo_sim_init: open /var/tmp/tarvo failed - "
              "No such file or directory\n"
              "[tarvo:5] tarvo:LINE tarvo_devmem_init: tarvo: searched /proc/tarvo, found line "
              "'200000000\t23fffffff\t0\ttarvo\\n', start: 200000000, end: 23fffffff\n"
              "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: Library initialized at 0x200000000 of "
              "size 40000000\n"
              "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: Initialized chunk list with HEAD "
              "0x200000000 and TAIL 0x240000000\n"
              "[tarvo:5] tarvo:LINE tarvo_init: tarvo_init: HEAD: 0x200000000, TAIL: "
              "0x240000000\n");
}

TEST(tracing, ShowsTheRegionsSizeInThe32BitsItIsKeptIn) {
    sandbox machine(high, {"--region", "200000000-40000ffff:tarvo"});
    client user = machine.start({"setenv ZUL_TRACE 5"});
    user.limits();
    EXPECT_NE(user.error_text().find("Library initialized at 0x200000000 of size 10000\n"),
              std::string::npos);
    EXPECT_NE(user.error_text().find("HEAD: 0x200000000, TAIL: 0x200010000\n"), std::string::npos);
}

TEST(tracing, AtLevel3ReportsFailuresOnly) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE tarvo=3"});
    use_the_library(user);
    // The text ends in a newline, which falls together with the record's own.
    EXPECT_EQ(without_lines(user.error_text()),
              "[tarvo:3] tarvo:LINE find_chunk_desc: tarvo: find_chunk_desc() size mismatch, see "
              "tarvo\n" +
                  std::string(size_mismatch));
}

/// The line of the one record whose text ends so.
int line_of_record(const std::string& error_text, const std::string& end) {
    const pattern record(R"(\[tarvo:5\] tarvo:(\d+) [^\n]*)" + end + R"(\n)");
    return record.is_in(error_text) ? std::stoi(record.group_in(error_text)) : 0;
}

TEST(tracing, OfEachOutcomeOfAMappingHasALineOfItsOwn) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE 5"});
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(user.call("map nothing 1 0 0"), "null");
    EXPECT_EQ(user.call("map rx_ring 1 4096 0"), "null");
    user.call("fail flock EINTR");
    EXPECT_EQ(user.call("map rx_ring 1 0 0"), "null");
    std::set<int> lines;
    for (const char* end : {"off 1000 size 0", "not found", "Invalid argument", "lock failed"}) {
        lines.insert(line_of_record(user.error_text(), end));
    }
    EXPECT_EQ(lines.size(), 4U) << user.error_text();
    EXPECT_FALSE(lines.contains(0)) << user.error_text();
}

TEST(tracing, OfMappingTheWholeRegionAndOfUnmappingItHaveLinesOfTheirOwn) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE 5"});
    user.call("map_all");
    user.call("unmap_all");
    const int mapping = line_of_record(user.error_text(), "tarvo_map_all va .* refcount 0");
    const int unmapping = line_of_record(user.error_text(), "tarvo_unmap_all va .* refcount 1");
    EXPECT_NE(mapping, 0) << user.error_text();
    EXPECT_NE(unmapping, 0) << user.error_text();
    EXPECT_NE(mapping, unmapping);
}

TEST(tracing, OfTranslationsNeedsLevel6) {
    sandbox machine(high);
    machine.start().limits();
    client quiet = machine.start({"setenv ZUL_TRACE 5"});
    quiet.limits();
    const std::string started = quiet.error_text();
    quiet.to_dma(0x200001000);
    quiet.to_pa(0x20001000);
    EXPECT_EQ(quiet.error_text(), started);

    client talkative = machine.start({"setenv ZUL_TRACE 6"});
    talkative.limits();
    EXPECT_EQ(without_lines(talkative.error_text()),
              without_lines(started) +
                  "[tarvo:6] tarvo:LINE tarvo_pa_to_dma: tarvo_pa_to_dma: 200000000->  20000000\n"
                  "[tarvo:6] tarvo:LINE tarvo_pa_to_dma: tarvo_pa_to_dma: 240000000->  60000000\n");
}

TEST(tracing, IsDecidedWhenTheFirstRecordIsDue) {
    sandbox machine(simulation);
    client user = machine.start();
    user.limits();
    user.call("setenv ZUL_TRACE 6");
    user.to_dma(0x1000);
    EXPECT_EQ(user.error_text(), "");
}

} // namespace

} // namespace tracing_test
