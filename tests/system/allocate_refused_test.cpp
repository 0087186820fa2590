// Allocations that end before anything is allocated, in the order in which things are looked at.

#include "observed.hpp"

#include <gtest/gtest.h>

namespace allocate_refused_test {

namespace {

const std::string signature = "uint32_t tarvo_alloc_func(const char*, size_t, const char*)";

struct wrong_arguments {
    std::string command;
    const char* expression;
};

class an_argument : public testing::TestWithParam<world> {};

TEST_P(an_argument, ThatIsWrongEndsTheProcessOnceTheLibraryIsStarted) {
    const char* const name_length = "len_name > 0 && (len_name < 50)";
    const std::vector<wrong_arguments> cases{
        {R"(alloc "" 4096 me)", name_length},
        {"alloc " + std::string(50, 'n') + " 4096 me", name_length},
        {"alloc " + std::string(3000, 'n') + " 4096 me", name_length},
        {R"(alloc rx_ring 4096 "")", "len_agent_name > 0"},
        {"alloc rx_ring 0 me", "size"},
        // The name counts before the creator, the creator before the size.
        {R"(alloc "" 0 "")", name_length},
        {R"(alloc rx_ring 0 "")", "len_agent_name > 0"},
    };
    for (const wrong_arguments& one : cases) {
        sandbox machine(GetParam());
        client user = machine.start();
        EXPECT_EQ(fatal_outcome(user, one.command), aborted(assertion(signature, one.expression)))
            << one.command;
        EXPECT_EQ(layout(machine), "") << one.command;
        EXPECT_EQ(troubles(machine), texts{}) << one.command;
    }
}

TEST_P(an_argument, ThatIsNullIsAMemoryFaultOnceTheLibraryIsStarted) {
    for (const char* command : {"alloc @null 4096 me", "alloc rx_ring 4096 @null",
                                R"(alloc @null 0 "")", "alloc rx_ring 0 @null"}) {
        sandbox machine(GetParam());
        client user = machine.start();
        EXPECT_EQ(fatal_outcome(user, command), "signal Segmentation fault\n") << command;
        EXPECT_EQ(troubles(machine), texts{}) << command;
    }
}

TEST_P(an_argument, IsLookedAtWithoutTheLock) {
    sandbox machine(GetParam());
    client user = machine.start();
    user.limits();
    const held_lock lock(machine.lock_file());
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 0 me"), aborted(assertion(signature, "size")));
}

INSTANTIATE_TEST_SUITE_P(, an_argument, testing::Values(simulation, high, cma), world_name());

TEST(a_library_that_does_not_start, MakesAllocationsFailWhateverTheArguments) {
    sandbox machine(low, {"--without", "proc"});
    client user = machine.start();
    for (const char* command :
         {"alloc rx_ring 4096 me", R"(alloc "" 0 "")", "alloc @null 0 @null"}) {
        EXPECT_EQ(outcome(user, command), "0x0\n" + no_region_at_all()) << command;
    }
}

TEST(a_library_that_does_not_start, IsTracedInTheNameOfTheAllocation) {
    sandbox machine(low);
    client user = machine.start({"setenv ZUL_TRACE tarvo=3", "fail mmap64 ENOMEM"});
    EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"),
              "0x0\ntarvo_init: failed to map shared memory\n" +
                  traced(3, "tarvo_init", "tarvo_init: failed to map shared memory") +
                  traced(3, "tarvo_alloc_func", "tarvo_alloc_func: failed to initialize library") +
                  "tarvo: failed to initialize library\n");
    EXPECT_EQ(user.alloc("rx_ring", 4096), 0x80000000U);
}

TEST(a_library_that_does_not_start, IsReportedAfterTheArguments) {
    sandbox machine(low, {"--without", "proc"});
    client user = machine.start({"setenv ZUL_TRACE tarvo=5"});
    const std::string said = outcome(user, R"(alloc rx_ring 0x100000001 "two words")");
    const std::string first = traced(5, "tarvo_alloc_func",
                                     "tarvo_alloc_func: name rx_ring size 4294967297 creator two "
                                     "words");
    EXPECT_EQ(said.substr(0, 4 + first.size()), "0x0\n" + first);
    EXPECT_TRUE(said.ends_with(
        traced(3, "tarvo_alloc_func", "tarvo_alloc_func: failed to initialize library") +
        "tarvo: failed to initialize library\n"));
}

TEST(an_allocation, IsTracedFromItsArgumentsToItsAddresses) {
    sandbox machine(high);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5"});
    user.limits();
    EXPECT_EQ(outcome(user, "alloc rx_ring 5000 driver"),
              "0x20000000\n" +
                  traced(5, "tarvo_alloc_func",
                         "tarvo_alloc_func: name rx_ring size 5000 creator driver") +
                  traced(5, "tarvo_alloc_func",
                         "tarvo_alloc_func: name rx_ring pa 0x200000000 dma 0x20000000"));
}

TEST(an_allocation, TracesItsArgumentsBeforeTheyEndTheProcess) {
    sandbox machine(low);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5"});
    user.limits();
    EXPECT_EQ(
        fatal_outcome(user, "alloc rx_ring 0 me"),
        aborted(traced(5, "tarvo_alloc_func", "tarvo_alloc_func: name rx_ring size 0 creator me") +
                assertion(signature, "size")));
}

TEST(an_allocation, TranslatesItsAddressOnceTheLockIsFree) {
    sandbox machine(high);
    client user = machine.start({"setenv ZUL_TRACE tarvo=6"});
    user.limits();
    user.register_device(0, 3, 0);
    const auto translation = [](const char* of) {
        return traced(6, "tarvo_pa_to_dma", std::string("tarvo_pa_to_dma: ") + of);
    };
    // The request's two, the end first; then the caller's.
    EXPECT_EQ(
        outcome(user, "alloc rx_ring 4096 me"),
        "0x20000000\n" +
            traced(5, "tarvo_alloc_func", "tarvo_alloc_func: name rx_ring size 4096 creator me") +
            translation("200000fff->  20000fff") + translation("200000000->  20000000") +
            translation("200000000->  20000000") +
            traced(5, "tarvo_alloc_func",
                   "tarvo_alloc_func: name rx_ring pa 0x200000000 dma 0x20000000"));
}

struct damage {
    size_t offset;
    int32_t value;
    std::string last_words;
};

TEST(an_allocation_from_a_damaged_list, EndsTheProcess) {
    const size_t head = area_offset::chunk(0);
    const size_t rx_ring = area_offset::chunk(2);
    const std::vector<damage> cases{
        {head + area_offset::next, 16384, container_assertion(159, "idx >= 0 && idx < MAX")},
        {head + area_offset::next, -2, container_assertion(159, "idx >= 0 && idx < MAX")},
        {rx_ring + area_offset::allocated, 0, element_not_in_use()},
        {area_offset::chunks_free, 1, container_assertion(126, "!chunk->allocated")},
        {area_offset::chunks_free, 16384, container_assertion(159, "idx >= 0 && idx < MAX")},
    };
    for (const damage& one : cases) {
        sandbox machine(low);
        client user = machine.start();
        user.alloc("rx_ring", 4096);
        machine.writable_area().writer().i32(one.offset, one.value);
        EXPECT_EQ(fatal_outcome(user, "alloc tx_ring 4096 me"), aborted(one.last_words))
            << one.offset << " " << one.value;
        EXPECT_TRUE(lock_is_free(machine.lock_file()));
    }
}

} // namespace

} // namespace allocate_refused_test
