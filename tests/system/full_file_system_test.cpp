// File systems without room, and files that were shortened, under what the library maps of them.

#include "observed.hpp"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>

namespace full_file_system_test {

namespace {

/// A program in a simulation whose files lie on a file system of that size. All programs of the
/// sandbox see it.
client start_with_room(sandbox& machine, const std::string& size) {
    return machine.start_program(
        {"sh", "-c", "mount -t tmpfs -o size=" + size + " tmpfs /var/tmp && exec " TARVO_CLIENT});
}

const std::string no_memory_for_it =
    aborted("tarvo_alloc: mmap failed!: Bad address\n" + element_not_in_use());

TEST(a_first_start_without_room, FailsAsWithAnAreaThatCannotBeMapped) {
    for (const char* size : {"1m", "66m"}) {
        sandbox machine(simulation);
        client user = start_with_room(machine, size);
        user.call("setenv ZUL_TRACE 3");
        const texts before = user.descriptors();
        for (int attempt = 0; attempt < 2; ++attempt) {
            EXPECT_EQ(outcome(user, "alloc rx_ring 4096 me"),
                      "0x0\ntarvo_init: failed to map shared memory\n" +
                          traced(3, "tarvo_init", "tarvo_init: failed to map shared memory") +
                          traced(3, "tarvo_alloc_func",
                                 "tarvo_alloc_func: failed to initialize library") +
                          "tarvo: failed to initialize library\n")
                << size;
            EXPECT_EQ(user.descriptors(), before) << size;
        }
    }
}

TEST(a_first_start_without_any_room, FailsTheSameWay) {
    sandbox machine(simulation);
    client user = start_with_room(machine, "1m");
    process filler = machine.start_process({"sh", "-c", "cat /dev/zero >/var/tmp/other"});
    filler.wait();
    EXPECT_EQ(outcome(user, "limits"), "-1 0xdeadbeef 0xdeadbeef\n"
                                       "tarvo_init: failed to map shared memory\n"
                                       "tarvo: failed to initialize library\n");
}

TEST(a_chunk_without_room, IsNotListedAndEndsTheProcessAsOneThatCannotBeMapped) {
    sandbox machine(simulation);
    client user = start_with_room(machine, "70m");
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(fatal_outcome(user, "alloc tx_ring 0x1000000 me"), no_memory_for_it);
    client other = machine.start();
    EXPECT_EQ(other.dump().size(), 1U);
    EXPECT_EQ(other.find(0x1000), (found_chunk{"rx_ring", 0x1000}));
}

TEST(a_chunk_of_a_shortened_memory, IsNotListedAndEndsTheProcessTheSameWay) {
    sandbox machine(simulation);
    client user = machine.start();
    user.limits();
    std::filesystem::resize_file(machine.simulated_memory(), 0x2000);
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 8192 me"), no_memory_for_it);
    EXPECT_EQ(layout(machine), "");
    EXPECT_EQ(troubles(machine), texts{});
}

} // namespace

} // namespace full_file_system_test
