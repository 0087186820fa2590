// Chunks, and windows of them, in a program's own memory.

#include "world_test.hpp"

#include <csignal>
#include <fstream>

namespace map_test {

namespace {

class mapping : public world_test {};

TEST_P(mapping, WithoutASizeShowsTheWholeChunk) {
    user.alloc("tx_ring", pages(1));
    user.alloc("rx_ring", pages(3));
    const uint64_t va = user.map("rx_ring", true, 0, 0);
    EXPECT_EQ(mapping_at(va), described("rw-s", region().start + pages(1), pages(3)));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(mapping, ForReadingFaultsAtAWrite) {
    user.alloc("rx_ring", pages(2));
    const uint64_t va = user.map("rx_ring", false, 0, 0);
    EXPECT_EQ(mapping_at(va), described("r--s", region().start, pages(2)));
    EXPECT_EQ(user.call("peek " + std::to_string(va) + " 0 2"), "0000");
    EXPECT_EQ(user.dies("poke " + std::to_string(va) + " 0 x"), ended_by(SIGSEGV));
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(mapping, ShowsTheMemoryAtThePhysicalAddressToEverybody) {
    user.alloc("rx_ring", pages(2));
    user.call("poke " + std::to_string(user.map("rx_ring")) + " 4096 frame");
    std::ifstream memory(machine.memory_file());
    memory.seekg(static_cast<std::streamoff>(region().start + 4096));
    std::string bytes(6, '?');
    memory.read(bytes.data(), 6);
    EXPECT_EQ(bytes, std::string("frame\0", 6));
    client other = machine.start();
    EXPECT_EQ(other.call("peek " + std::to_string(other.map("rx_ring", false)) + " 4096 6"),
              "6672616d6500");
}

TEST_P(mapping, OfAWindowStartsAtTheOffsetAndHasTheSize) {
    user.alloc("rx_ring", pages(4));
    const uint64_t pa = region().start;
    EXPECT_EQ(mapping_at(user.map("rx_ring", true, pages(1), pages(2))),
              described("rw-s", pa + pages(1), pages(2)));
    EXPECT_EQ(mapping_at(user.map("rx_ring", false, pages(3), pages(1))),
              described("r--s", pa + pages(3), pages(1)));
}

TEST_P(mapping, OfAnOffsetWithoutASizeReachesToTheChunksEnd) {
    user.alloc("rx_ring", pages(4));
    EXPECT_EQ(mapping_at(user.map("rx_ring", true, pages(3), 0)),
              described("rw-s", region().start + pages(3), pages(1)));
}

TEST_P(mapping, IsMadeUnderTheLockWithNothingRounded) {
    user.alloc("rx_ring", pages(2));
    user.call("calls");
    user.map("rx_ring", false, pages(1), 5);
    EXPECT_EQ(user.call("calls"), taken() + "mmap64(null,5,1,1," + memory_fd() + "," +
                                      std::to_string(region().start + pages(1)) + ")=pointer" +
                                      released());
}

TEST_P(mapping, OutlivesTheChunk) {
    user.alloc("rx_ring", pages(1));
    const uint64_t va = user.map("rx_ring");
    user.call("poke " + std::to_string(va) + " 0 frame");
    EXPECT_EQ(machine.start().free("rx_ring"), 0);
    EXPECT_EQ(user.call("peek " + std::to_string(va) + " 0 5"), "6672616d65");
    EXPECT_EQ(user.map("rx_ring"), 0U);
    EXPECT_EQ(user.error_text(), "");
}

TEST_P(mapping, NeedsTheWholeNameAndNeverFindsASentinel) {
    const std::string longest(49, 'n');
    user.alloc("rx_ring", pages(1));
    user.alloc(longest, pages(1));
    for (const std::string& name :
         {std::string("rx_rin"), std::string("rx_ring2"), std::string("RX_RING"),
          std::string("__HEAD"), std::string("__TAIL"), longest + "n", std::string(300, 'n')}) {
        EXPECT_EQ(user.map(name), 0U) << name;
        EXPECT_TRUE(lock_is_free(machine.lock_file())) << name;
    }
    EXPECT_NE(user.map(longest), 0U);
    EXPECT_EQ(user.error_text(), "");
}

INSTANTIATE_TEST_SUITE_P(, mapping, testing::ValuesIn(all_worlds()), world_name());

/// The CMA driver knows each name once.
class mapping_of_one_name_twice : public mapping {};

TEST_P(mapping_of_one_name_twice, TakesTheLowerChunk) {
    user.alloc("rx_ring", pages(1));
    user.alloc("rx_ring", pages(2));
    EXPECT_EQ(mapping_at(user.map("rx_ring")), described("rw-s", region().start, pages(1)));
    user.free("rx_ring");
    EXPECT_EQ(mapping_at(user.map("rx_ring")),
              described("rw-s", region().start + pages(1), pages(2)));
}

TEST_P(mapping_of_one_name_twice, TakesTheLowerChunkAlsoWhereItIsTheYoungerOne) {
    user.alloc("filler", pages(2));
    user.alloc("rx_ring", pages(1));
    user.free("filler");
    EXPECT_EQ(user.alloc("rx_ring", pages(2)), region().start_dma);
    EXPECT_EQ(mapping_at(user.map("rx_ring")), described("rw-s", region().start, pages(2)));
}

INSTANTIATE_TEST_SUITE_P(, mapping_of_one_name_twice, testing::ValuesIn(region_worlds()),
                         world_name());

// ---- Bounds ----

std::string bounds_message(uint64_t offset, uint64_t chunk_bytes, uint64_t end) {
    return " offset " + hex(offset) + " > chunk->size " + hex(chunk_bytes) + " or offset + size " +
           hex(end) + " is \n";
}

struct window_case {
    const char* name;
    uint64_t offset;
    uint64_t size;
    std::string said;
};

std::ostream& operator<<(std::ostream& stream, const window_case& window) {
    return stream << window.name;
}

constexpr uint32_t two_pages = 0x2000;

/// A window of a chunk of two pages; `end` as it is printed.
window_case outside(const char* name, uint64_t offset, uint64_t size, uint32_t end) {
    return {name, offset, size, bounds_message(offset, two_pages, end)};
}

class a_window_outside_the_chunk : public testing::TestWithParam<window_case> {};

TEST_P(a_window_outside_the_chunk, IsRefusedWithAMessageThatBreaksOffKeptOnPurpose) {
    const window_case& window = GetParam();
    sandbox machine(simulation);
    client user = machine.start();
    user.alloc("rx_ring", two_pages);
    user.call("calls");
    EXPECT_EQ(user.map("rx_ring", true, window.offset, window.size), 0U);
    EXPECT_EQ(user.error_text(), window.said);
    EXPECT_EQ(user.call("calls"), "flock(5,LOCK_EX)=0 flock(5,LOCK_UN)=0");
}

INSTANTIATE_TEST_SUITE_P(
    , a_window_outside_the_chunk,
    testing::Values(outside("offset_a_page_after_the_end", 0x3000, 0, two_pages),
                    outside("offset_a_byte_after_the_end", 0x2001, 0, two_pages),
                    outside("size_a_byte_too_large", 0, 0x2001, 0x2001),
                    outside("size_a_byte_too_large_for_the_offset", 0x1000, 0x1001, 0x2001),
                    outside("size_at_the_end", 0x2000, 1, 0x2001),
                    outside("offset_of_4_gib", four_gib, 0, two_pages),
                    outside("offset_above_4_gib", four_gib + 0x1000, 0x800, 0x1800),
                    outside("size_above_4_gib", 0, four_gib + 0x1000, 0x1000),
                    outside("both_above_4_gib", four_gib, four_gib, 0),
                    outside("sum_that_wraps", 0x1000, 0xfffff800, 0x800),
                    outside("largest_offset", ~uint64_t{0}, 0, two_pages),
                    outside("largest_size", 0, ~uint64_t{0}, 0xffffffff)),
    world_name());

TEST(the_bounds_message, IsWrittenBeforeTheLockIsReleased) {
    sandbox machine(low);
    client user = machine.start();
    user.alloc("rx_ring", two_pages);
    user.call("fail flock EBADF 2");
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0x2001"),
              aborted(bounds_message(0, two_pages, 0x2001) + release_failed));
}

TEST(a_window_whose_end_wraps, IsNotCaughtInA32BitSumKeptOnPurpose) {
    sandbox machine(high, {"--region", "200000000-2efffffff"});
    client user = machine.start();
    user.alloc("rx_ring", pages(1));
    machine.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 0xe0000000);
    const uint64_t va = user.map("rx_ring", false, 0xd0000000, 0x40000000);
    EXPECT_EQ(user.call("mapping " + std::to_string(va)), "r--s 0x2d0000000 1073741824 /dev/mem");
    EXPECT_EQ(user.error_text(), "");
}

TEST(a_large_chunk, IsShownWholeAndItsSizeIsPrintedUnsigned) {
    sandbox machine(high, {"--region", "200000000-2efffffff"});
    client user = machine.start();
    user.alloc("rx_ring", pages(1));
    machine.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 0xe0000000);
    EXPECT_EQ(user.call("mapping " + std::to_string(user.map("rx_ring"))),
              "rw-s 0x200000000 3758096384 /dev/mem");
    EXPECT_EQ(user.map("rx_ring", true, 0xe0001000), 0U);
    EXPECT_EQ(user.error_text(), bounds_message(0xe0001000, 0xe0000000, 0xe0000000));
}

// ---- What the system refuses ----

TEST(a_mapping_that_the_system_refuses, IsTracedBeforeTheLockIsReleasedAndWorksLater) {
    sandbox machine(cma);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "alloc rx_ring 4096 me"});
    const std::string called = "tarvo_map: name rx_ring off 0 size ";
    const std::string said = traced(5, "tarvo_map", called + "0") +
                             traced(5, "tarvo_map", called + "1000 mmap - Cannot allocate memory");
    user.call("fail mmap64 ENOMEM");
    EXPECT_EQ(outcome(user, "map rx_ring 1 0 0"), "null\n" + said);
    EXPECT_NE(user.map("rx_ring"), 0U);
    user.call("fail mmap64 ENOMEM");
    user.call("fail flock EBADF 2");
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0"), aborted(said + release_failed));
}

// ---- Traces ----

TEST(tracing_of_a_mapping, ShowsTheArgumentsInFullWidthAndNothingMoreOnSuccess) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "alloc rx_ring 0x2000 me"});
    user.new_text();
    EXPECT_NE(user.map("rx_ring", true, 0x1000, 0x801), 0U);
    EXPECT_EQ(user.new_text(), traced(5, "tarvo_map", "tarvo_map: name rx_ring off 1000 size 801"));
    EXPECT_EQ(outcome(user, "map rx_ring 1 0x100000000 0x200000000"),
              "null\n" +
                  traced(5, "tarvo_map", "tarvo_map: name rx_ring off 100000000 size 200000000") +
                  bounds_message(four_gib, two_pages, 0));
}

TEST(tracing_of_a_mapping, ReportsThatTheNameIsUnknownAfterTheLockIsReleased) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "limits"});
    const std::string called = "tarvo_map: name rx_ring off 0 size 0";
    user.call("fail flock EBADF 2");
    EXPECT_EQ(fatal_outcome(user, "map rx_ring 1 0 0"),
              aborted(traced(5, "tarvo_map", called) + release_failed));
}

} // namespace

} // namespace map_test
