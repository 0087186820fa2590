// The exchange with the CMA driver line by line, through the two steps that make it.

#include "observed.hpp"

#include <gtest/gtest.h>

namespace cma_driver_test {

namespace {

const std::string failure = "0xffffffffffffffff\n";

/// Asks for rx_ring of one page.
const std::string request = "get_cma_allocation rx_ring 4096";

struct hexadecimal_size {
    const char* size;
    const char* digits;
};

TEST(a_cma_command, HasItsSizeInLowerCaseHexadecimalWithoutASign) {
    const std::vector<hexadecimal_size> cases{
        {"4096", "1000"},           {"1048576", "100000"},      {"0xabcdef00", "abcdef00"},
        {"0xfffff000", "fffff000"}, {"0x80000000", "80000000"}, {"1", "1"},
    };
    for (const hexadecimal_size& one : cases) {
        sandbox machine(cma, {"--rule", "op=allocate,address=0x123456000"});
        client user = machine.start();
        EXPECT_EQ(outcome(user, std::string("get_cma_allocation rx_ring ") + one.size),
                  "0x123456000\n")
            << one.size;
        EXPECT_EQ(outcome(user, std::string("free_cma_allocation rx_ring ") + one.size), "0\n");
        const std::string rest = std::string(" rx_ring ") + one.digits + "\n";
        EXPECT_EQ(machine.cma_commands(), (texts{"a" + rest, "r" + rest}));
    }
}

TEST(a_cma_command, NeedsNeitherStartNorLock) {
    sandbox machine(cma);
    client user = machine.start();
    EXPECT_EQ(outcome(user, request), "0x100000000\n");
    EXPECT_EQ(user.call("calls"), "fopen(/proc/tarvo,we)=pointer write(3,15)=15 fclose(stream)=0 "
                                  "fopen(/proc/tarvo,re)=pointer fclose(stream)=0");
    EXPECT_EQ(outcome(user, "free_cma_allocation rx_ring 4096"), "0\n");
    EXPECT_EQ(user.call("calls"), "fopen(/proc/tarvo,we)=pointer fclose(stream)=0");
    EXPECT_EQ(machine.driver_log(),
              (texts{"proc open w", "proc write: a rx_ring 1000\n", "proc close", "proc open r",
                     "proc close", "proc open w", "proc write: r rx_ring 1000\n", "proc close"}));
    EXPECT_EQ(mode_of(machine.shared_area()), "missing");
}

TEST(a_cma_command, IsCutTo2047Bytes) {
    sandbox machine(cma);
    client user = machine.start();
    const std::string name(3000, 'n');
    user.call("get_cma_allocation " + name + " 4096");
    EXPECT_TRUE(user.call("calls").starts_with("fopen(/proc/tarvo,we)=pointer write(3,2047)="));
    EXPECT_EQ(machine.cma_commands(), texts{("a " + name).substr(0, 2047)});
}

TEST(a_cma_command, IsNotTraced) {
    sandbox machine(cma, {"--rule", "op=allocate,nth=1,errno=EIO"});
    client user = machine.start({"setenv ZUL_TRACE tarvo=6"});
    EXPECT_EQ(outcome(user, request), failure + "Error allocating CMA: Input/output error\n");
    EXPECT_EQ(outcome(user, request), "0x100000000\n");
    EXPECT_EQ(outcome(user, "free_cma_allocation rx_ring 4096"), "0\n");
}

struct obstacle {
    const char* rule;
    std::string said;
    texts asked; ///< by get_cma_allocation alone
};

class an_obstacle : public testing::TestWithParam<obstacle> {};

TEST_P(an_obstacle, MakesTheRequestFailAndLeavesNoFileOpen) {
    sandbox machine(cma, {"--rule", GetParam().rule});
    client user = machine.start();
    const texts before = user.descriptors();
    EXPECT_EQ(outcome(user, request), failure + GetParam().said);
    EXPECT_EQ(machine.driver_log(), GetParam().asked);
    EXPECT_EQ(user.descriptors(), before);
}

TEST_P(an_obstacle, MakesTheAllocationFailForWantOfSpaceAndIsFollowedByARelease) {
    sandbox machine(cma);
    client user = machine.start({"limits"});
    machine.add_rules({GetParam().rule});
    EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"), "0x0\n" + GetParam().said);
    const texts commands = machine.cma_commands();
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands.back(), "r rx_ring 1000\n");
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3"});
    machine.replace_rules({});
    watched.limits();
    machine.replace_rules({GetParam().rule});
    EXPECT_EQ(outcome(watched, "alloc rx_ring 4096 me"),
              "0x0\n" + GetParam().said +
                  traced(3, "tarvo_alloc_func", "tarvo_alloc_func: ran out of tarvo space"));
}

const texts asked_in_full{"proc open w", "proc write: a rx_ring 1000\n", "proc close",
                          "proc open r", "proc close"};

INSTANTIATE_TEST_SUITE_P(
    , an_obstacle,
    testing::Values(obstacle{"op=open-write,nth=1,errno=EACCES",
                             "Error opening /proc/tarvo: Permission denied\n",
                             {"proc open w EACCES"}},
                    obstacle{"op=allocate,errno=ENOMEM",
                             "Error allocating CMA: Cannot allocate memory\n",
                             {"proc open w", "proc write ENOMEM: a rx_ring 1000\n", "proc close"}},
                    obstacle{"op=allocate,errno=EBUSY",
                             "Error allocating CMA: Device or resource busy\n",
                             {"proc open w", "proc write EBUSY: a rx_ring 1000\n", "proc close"}},
                    obstacle{"op=open-read,errno=EMFILE",
                             "Error opening /proc/tarvo: Too many open files\n",
                             {"proc open w", "proc write: a rx_ring 1000\n", "proc close",
                              "proc open r EMFILE"}},
                    obstacle{"listing=empty", "Expected at least 1 line in /proc/tarvo\n",
                             asked_in_full},
                    obstacle{"listing=missing-field", "Error parsing /proc/tarvo\n", asked_in_full},
                    obstacle{"listing=garbage", "Error parsing /proc/tarvo\n", asked_in_full},
                    // The allocation's own line counts as the first one, which is not looked at.
                    obstacle{"listing=no-first-line", "", asked_in_full},
                    obstacle{"listing=first-line-only", "", asked_in_full},
                    obstacle{"listing=wrong-size", "", asked_in_full},
                    // A command that is cut short is not noticed; there is just no such allocation.
                    obstacle{"op=allocate,short=4", "", asked_in_full}));

TEST(an_open_that_fails_for_both_commands, IsReportedForEach) {
    sandbox machine(cma);
    client user = machine.start({"limits"});
    machine.add_rules({"op=open-write,errno=EPERM"});
    EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"),
              "0x0\nError opening /proc/tarvo: Operation not permitted\n"
              "Error opening /proc/tarvo: Operation not permitted\n");
    EXPECT_EQ(troubles(machine), texts{});
    EXPECT_EQ(outcome(user, "free_cma_allocation rx_ring 4096"),
              "-1\nError opening /proc/tarvo: Operation not permitted\n");
}

TEST(a_cma_request, ForANameThatTheDriverHoldsGetsTheSameMemory) {
    sandbox machine(cma);
    client user = machine.start();
    EXPECT_EQ(outcome(user, request), "0x100000000\n");
    EXPECT_EQ(outcome(user, request), "0x100000000\n");
    const texts log = machine.driver_log();
    ASSERT_EQ(log.size(), 10U);
    EXPECT_EQ(log[6], "proc write EEXIST: a rx_ring 1000\n");
    // Unless it is of another size.
    EXPECT_EQ(outcome(user, "get_cma_allocation rx_ring 8192"), failure);
}

TEST(a_cma_request, IsGoodWhateverTheDriverSaysWhenTheFileIsClosed) {
    sandbox machine(cma, {"--rule", "op=allocate,at=close,errno=EIO"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, request), "0x100000000\n");
}

TEST(a_cma_request, FailsWhereNoFirstLineCanBeRead) {
    sandbox machine(cma);
    client user = machine.start({"fail fgets EIO"});
    EXPECT_EQ(outcome(user, request), failure + "Expected at least 1 line in /proc/tarvo\n");
    // A later line that cannot be read is the end of the listing.
    user.call("fail fgets EIO 2");
    EXPECT_EQ(outcome(user, request), failure);
    EXPECT_EQ(outcome(user, request), "0x100000000\n");
}

TEST(a_cma_request, ForANameInTwoWordsIsNotUnderstoodByTheDriver) {
    sandbox machine(cma);
    client user = machine.start();
    EXPECT_EQ(outcome(user, R"(alloc "two words" 4096 me)"),
              "0x0\nError allocating CMA: Invalid argument\n");
    EXPECT_EQ(machine.cma_commands(), (texts{"a two words 1000\n", "r two words 1000\n"}));
}

struct listing {
    const char* lines; ///< after the region's own, in the notation of --region-line
    std::string outcome;
};

TEST(a_cma_listing, IsReadLineByLineUntilNameAndSizeAreRightOrALineIsWrong) {
    const std::string wrong = failure + "Error parsing /proc/tarvo\n";
    const std::vector<listing> cases{
        {R"(rx_ring\t100002000\t1000)", "0x100002000\n"},
        {R"(a\t100001000\t1000\nrx_ring\t100002000\t1000)", "0x100002000\n"},
        {R"(rx_ring\t100002000\t2000\nrx_ring\t100003000\t1000)", "0x100003000\n"},
        {R"(rx_ring\t100002000\t1000\nrx_ring\t100003000\t1000)", "0x100002000\n"},
        {R"(rx_ring\t100002000\t1000\nwrong)", "0x100002000\n"},
        {R"(RX_RING\t100002000\t1000\nrx_ringx\t100002000\t1000\nrx_rin\t100002000\t1000)",
         failure},
        {R"(rx_ring\t0\t1000)", "0x0\n"},
        {R"(rx_ring\tffffffffffffffff\t1000)", failure},
        {R"(rx_ring\t0xABCDE000 \t 0x1000\tmore words)", "0xabcde000\n"},
        {R"( rx_ring 100002000 1000)", "0x100002000\n"},
        // Sizes are compared in full.
        {R"(rx_ring\t100002000\t100001000)", failure},
        {R"(rx_ring\t100002000\nrx_ring\t100002000\t1000)", wrong},
        {R"(a\nrx_ring\t100002000\t1000)", wrong},
        {R"(\nrx_ring\t100002000\t1000)", wrong},
        {R"(rx_ring\tplace\t1000)", wrong},
        {R"(rx_ring\t100002000\tsize)", wrong},
        {R"(other\t100002000\tsize\nrx_ring\t100002000\t1000)", wrong},
        {R"(rx_ring\t-1000\t1000)", "0xfffffffffffff000\n"},
    };
    for (const listing& one : cases) {
        // The driver's own allocation would follow, of which nothing is to be seen.
        sandbox machine(cma, {"--region-line",
                              std::string(R"(100000000\t13fffffff\t0\tCMA\n)") + one.lines,
                              "--rule", "op=allocate,errno=EEXIST"});
        client user = machine.start();
        EXPECT_EQ(outcome(user, request), one.outcome) << one.lines;
    }
}

TEST(a_cma_listing, DoesNotHaveToBeginWithARegion) {
    sandbox machine(cma, {"--region-line", R"(any words\nrx_ring\t100002000\t1000)", "--rule",
                          "op=allocate,errno=EEXIST"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, request), "0x100002000\n");
}

TEST(a_cma_listing, IsReadIn2047BytesAtATimeSoThatALongerLineIsTwo) {
    for (const auto& [length, said] : {std::pair<size_t, std::string>{2046, "0x100002000\n"},
                                       {2047, failure + "Error parsing /proc/tarvo\n"}}) {
        sandbox machine(cma, {"--region-line",
                              std::string(length, 'x') + R"(\nrx_ring\t100002000\t1000)", "--rule",
                              "op=allocate,errno=EEXIST"});
        client user = machine.start();
        EXPECT_EQ(outcome(user, request), said) << length;
    }
}

TEST(a_cma_listing, IsSkippedOverWhereItHasOtherNamesAndSizes) {
    for (const char* rule : {"listing=extra-name", "listing=extra-size"}) {
        sandbox machine(cma, {"--rule", rule});
        client user = machine.start();
        EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"), "0x20000000\n") << rule;
        EXPECT_EQ(outcome(user, "alloc tx_ring 4096 me"), "0x20001000\n") << rule;
    }
}

TEST(a_cma_listing, ThatGivesAddress0IsNoMemory) {
    sandbox machine(cma, {"--rule", "listing=address-zero,name=rx_ring"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, "alloc tx_ring 4096 me"), "0x20000000\n");
    EXPECT_EQ(outcome(user, request), "0x0\n");
    EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"), "0x0\n");
    EXPECT_EQ(machine.cma_commands().back(), "r rx_ring 1000\n");
    EXPECT_EQ(layout(machine), "tx_ring:0+1");
}

} // namespace

} // namespace cma_driver_test
