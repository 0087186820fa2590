// A program that unloads the library and loads it again.

#include "sandbox.hpp"

#include <gtest/gtest.h>

namespace unloading_test {

namespace {

TEST(a_library_that_is_unloaded, StaysAsItIsAlsoInAListing) {
    sandbox machine(simulation);
    process host = machine.start_process({TARVO_PLUGIN_HOST, TARVO_LIBRARY});
    const std::vector<std::string> expected{
        "started: 0 descriptors, 0 areas",        "allocated 4096: 3 descriptors, 1 areas",
        "allocated 4096: 3 descriptors, 1 areas", "allocated 4096: 3 descriptors, 1 areas",
        "listing: 3 descriptors, 1 areas",        "a chunk: 3 descriptors, 1 areas",
        "listing again: 3 descriptors, 1 areas",  "ended: 3 descriptors, 1 areas",
        "allocated 4096: 3 descriptors, 1 areas"};
    std::vector<std::string> reported;
    while (const auto line = host.read_line()) {
        reported.push_back(*line);
    }
    EXPECT_EQ(reported, expected);
    EXPECT_EQ(host.wait(), normal_end);
    EXPECT_TRUE(lock_is_free(machine.simulated_lock()));
}

} // namespace

} // namespace unloading_test
