// Mappings given back by the name of a chunk.

#include "world_test.hpp"

#include <csignal>

namespace unmap_test {

namespace {

const char* const signature = "int tarvo_unmap(const char*, void*, size_t)";

std::string unmap_command(uint64_t va, uint64_t size = 0) {
    return "unmap rx_ring " + std::to_string(va) + " " + std::to_string(size);
}

/// What is said when the system refuses; `size` is the chunk's.
std::string unmap_message(uint64_t pa, uint64_t va, uint64_t size) {
    return "tarvo: failed to unmap chunk, pa: " + hex(pa) + ", va: 0x" + hex(va) +
           ", size: " + std::to_string(size) + ", Invalid argument\n";
}

class unmapping : public world_test {};

TEST_P(unmapping, WithoutASizeRemovesAsMuchAsTheChunkHas) {
    user.alloc("rx_ring", pages(3));
    const uint64_t va = user.map("rx_ring");
    user.call("calls");
    EXPECT_EQ(outcome(user, unmap_command(va)), "0\n");
    EXPECT_EQ(user.call("calls"),
              taken() + "munmap(pointer," + std::to_string(pages(3)) + ")=0" + released());
    EXPECT_EQ(mapping_at(va), "none");
    EXPECT_EQ(mapping_at(va + pages(2)), "none");
}

TEST_P(unmapping, OfAPartLeavesTheRest) {
    user.alloc("rx_ring", pages(3));
    const uint64_t va = user.map("rx_ring");
    EXPECT_EQ(outcome(user, unmap_command(va, pages(1))), "0\n");
    EXPECT_EQ(mapping_at(va), "none");
    EXPECT_EQ(mapping_at(va + pages(1)), described("rw-s", region().start + pages(1), pages(2)));
}

TEST_P(unmapping, HandsOnTheSizeWithoutRounding) {
    user.alloc("rx_ring", pages(2));
    const uint64_t va = user.map("rx_ring");
    user.call("calls");
    EXPECT_EQ(outcome(user, unmap_command(va, 5)), "0\n");
    EXPECT_EQ(user.call("calls"), taken() + "munmap(pointer,5)=0" + released());
    EXPECT_EQ(mapping_at(va + pages(1)), described("rw-s", region().start + pages(1), pages(1)));
}

TEST_P(unmapping, DoesNotCompareTheAddressWithTheChunk) {
    user.alloc("rx_ring", pages(1));
    user.alloc("tx_ring", pages(1));
    const uint64_t va = user.map("tx_ring");
    EXPECT_EQ(outcome(user, unmap_command(va)), "0\n");
    EXPECT_EQ(mapping_at(va), "none");
    // Nothing is mapped there any more, and the system does not mind.
    EXPECT_EQ(outcome(user, unmap_command(va)), "0\n");
}

TEST_P(unmapping, GoesByTheSizeOfTheLowerChunkOfThatName) {
    user.alloc("rx_ring", pages(1));
    user.alloc("upper", pages(2));
    const uint64_t va = user.map("upper");
    machine.writable_area().writer().text(area_offset::chunk(3) + area_offset::name, "rx_ring");
    EXPECT_EQ(outcome(user, unmap_command(va)), "0\n");
    EXPECT_EQ(mapping_at(va + pages(1)),
              described("rw-s", region().start + 2 * pages(1), pages(1)));
    EXPECT_EQ(fatal_outcome(user, unmap_command(va, pages(2))),
              aborted(assertion(signature, "size <= chunk->size")));
}

TEST_P(unmapping, ThatTheSystemRefusesIsReportedWithTheChunksSizeAndStillGives0KeptOnPurpose) {
    user.alloc("tx_ring", pages(1));
    user.alloc("rx_ring", pages(3));
    const uint64_t va = user.map("rx_ring");
    user.call("calls");
    EXPECT_EQ(outcome(user, unmap_command(va + 1, pages(1))),
              "0\n" + unmap_message(region().start + pages(1), va + 1, pages(3)));
    EXPECT_EQ(user.call("calls"),
              taken() + "munmap(pointer," + std::to_string(pages(1)) + ")=-1" + released());
    EXPECT_EQ(mapping_at(va), described("rw-s", region().start + pages(1), pages(3)));
}

TEST_P(unmapping, OfAnUnknownNameEndsTheProcessAfterTheLockIsReleased) {
    user.alloc("rx_ring", pages(1));
    EXPECT_EQ(fatal_outcome(user, "unmap tx_ring 0x1000 0"),
              aborted(assertion(signature, "found")));
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    client other = machine.start({"limits", "fail flock EBADF 2"});
    EXPECT_EQ(fatal_outcome(other, "unmap tx_ring 0x1000 0"), aborted(release_failed));
}

TEST_P(unmapping, OfMoreThanTheChunkHasEndsTheProcessWhileTheLockIsHeld) {
    machine.start().alloc("rx_ring", pages(2));
    for (const uint64_t size : {pages(2) + 1, uint64_t{0x100001000}, ~uint64_t{0}}) {
        // Were it released, that would be the last word.
        client wrong = machine.start({"limits", "fail flock EBADF 2"});
        EXPECT_EQ(fatal_outcome(wrong, unmap_command(0x1000, size)),
                  aborted(assertion(signature, "size <= chunk->size")))
            << size;
        EXPECT_TRUE(lock_is_free(machine.lock_file()));
    }
}

INSTANTIATE_TEST_SUITE_P(, unmapping, testing::ValuesIn(all_worlds()), world_name());

TEST(the_unmap_message, IsWrittenBeforeTheLockIsReleased) {
    sandbox machine(low);
    client user = machine.start({"alloc rx_ring 4096 me", "fail flock EBADF 2"});
    EXPECT_EQ(fatal_outcome(user, unmap_command(0x1001)),
              aborted(unmap_message(low.start, 0x1001, 4096) + release_failed));
}

TEST(the_unmap_message, ShowsTheSizeUnsigned) {
    sandbox machine(high, {"--region", "200000000-2efffffff"});
    client user = machine.start({"alloc rx_ring 4096 me"});
    machine.writable_area().writer().u32(area_offset::chunk(2) + area_offset::size, 0xe0000000);
    EXPECT_EQ(outcome(user, unmap_command(0x1001, 1)),
              "0\n" + unmap_message(high.start, 0x1001, 0xe0000000));
}

TEST(tracing_of_an_unmapping, ShowsTheArgumentsOnceHoweverTheCallGoes) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "alloc rx_ring 4096 me"});
    const std::string called =
        traced(5, "tarvo_unmap", "tarvo_unmap: name rx_ring va 0x1001 size 1000");
    EXPECT_EQ(outcome(user, "unmap rx_ring 0x1001 0x1000"),
              "0\n" + called + unmap_message(0x1000, 0x1001, 0x1000));
    user.call("fail flock EINTR");
    EXPECT_EQ(outcome(user, "unmap rx_ring 0x1001 0x1000"),
              "-1\n" + called + "tarvo: failed to accquire lock: Interrupted system call\n");
    EXPECT_EQ(
        fatal_outcome(user, "unmap rx_ring 0x1001 0x200001000"),
        aborted(traced(5, "tarvo_unmap", "tarvo_unmap: name rx_ring va 0x1001 size 200001000") +
                assertion(signature, "size <= chunk->size")));
}

TEST(tracing_of_an_unmapping, ComesBeforeTheArgumentsAreLookedAt) {
    sandbox machine(low, {"--without", "proc"});
    client unnamed = machine.start({"setenv ZUL_TRACE tarvo=5"});
    EXPECT_EQ(unnamed.dies("unmap @null @null 0"), ended_by(SIGSEGV));
    EXPECT_EQ(unnamed.new_text(),
              traced(5, "tarvo_unmap", "tarvo_unmap: name (null) va (nil) size 0"));
    client unplaced = machine.start({"setenv ZUL_TRACE tarvo=5"});
    EXPECT_EQ(fatal_outcome(unplaced, "unmap rx_ring @null 0"),
              aborted(traced(5, "tarvo_unmap", "tarvo_unmap: name rx_ring va (nil) size 0") +
                      assertion(signature, "strlen(name) && va")));
}

} // namespace

} // namespace unmap_test
