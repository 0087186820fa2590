// The whole region in a program's memory, mapped once and counted.

#include "world_test.hpp"

namespace map_all_test {

namespace {

const std::string failed_before = assertion("void* tarvo_map_all()", "tarvo_mapall_refcount == 0");
const std::string not_mapped = assertion("void tarvo_unmap_all()", "tarvo_mapall_va");

uint64_t map_all(client& user) {
    return std::stoull(user.call("map_all"), nullptr, 16);
}

std::string unmap_message(uint64_t va, uint64_t bytes, const std::string& reason) {
    return "tarvo: failed to unmap chunk, va: 0x" + hex(va) + ", size: " + std::to_string(bytes) +
           ", error: " + reason + "\n";
}

class whole_region : public world_test {};

TEST_P(whole_region, ShowsEveryChunkWhereItLies) {
    user.alloc("tx_ring", pages(1));
    user.alloc("rx_ring", pages(1));
    const uint64_t va = map_all(user);
    user.call("poke " + std::to_string(va) + " " + std::to_string(pages(1)) + " frame");
    client other = machine.start();
    EXPECT_EQ(other.call("peek " + std::to_string(other.map("rx_ring")) + " 0 5"), "6672616d65");
}

TEST_P(whole_region, IsMappedOnceAndUnmappedWithTheLastOfItsUsers) {
    user.limits();
    user.call("calls");
    const uint64_t va = map_all(user);
    const std::string bytes = std::to_string(region().bytes);
    EXPECT_EQ(user.call("calls"), "mmap64(null," + bytes + ",3,1," + memory_fd() + "," +
                                      std::to_string(region().start) + ")=pointer");
    EXPECT_EQ(map_all(user), va);
    EXPECT_EQ(map_all(user), va);
    user.call("unmap_all");
    user.call("unmap_all");
    EXPECT_EQ(user.call("calls"), "");
    EXPECT_EQ(mapping_at(va), described("rw-s", region().start, region().bytes));
    EXPECT_EQ(outcome(user, "unmap_all"), "done\n");
    EXPECT_EQ(user.call("calls"), "munmap(pointer," + bytes + ")=0");
    EXPECT_EQ(mapping_at(va), "none");
}

TEST_P(whole_region, CanBeMappedAgain) {
    map_all(user);
    user.call("unmap_all");
    EXPECT_EQ(mapping_at(map_all(user)), described("rw-s", region().start, region().bytes));
}

TEST_P(whole_region, IsUnmappedByNobodyWhoHasNotMappedIt) {
    map_all(user);
    client other = machine.start({"limits"});
    EXPECT_EQ(fatal_outcome(other, "unmap_all"), aborted(not_mapped));
    user.call("unmap_all");
    EXPECT_EQ(fatal_outcome(user, "unmap_all"), aborted(not_mapped));
}

TEST_P(whole_region, ThatCouldNotBeMappedEndsTheProcessAtTheNextCallKeptOnPurpose) {
    const std::string failure =
        "null\ntarvo: failed to mmap size " + std::to_string(region().bytes) + "\n";
    client other = machine.start();
    for (client* one : {&user, &other}) {
        one->limits();
        one->call("fail mmap64 ENOMEM");
        EXPECT_EQ(outcome(*one, "map_all"), failure);
    }
    // It would succeed now, and is not tried.
    EXPECT_EQ(fatal_outcome(user, "map_all"), aborted(failed_before));
    EXPECT_EQ(fatal_outcome(other, "unmap_all"), aborted(not_mapped));
}

TEST_P(whole_region, ThatCouldNotBeUnmappedIsReportedAndGivenUpAllTheSame) {
    const uint64_t va = map_all(user);
    user.call("calls");
    user.call("fail munmap EINVAL");
    EXPECT_EQ(outcome(user, "unmap_all"),
              "done\n" + unmap_message(va, region().bytes, "Invalid argument"));
    EXPECT_EQ(user.call("calls"), "munmap(pointer," + std::to_string(region().bytes) + ")=-1");
    // The old mapping is still there, and a new one is made.
    EXPECT_NE(map_all(user), va);
    user.call("unmap_all");
    EXPECT_EQ(fatal_outcome(user, "unmap_all"), aborted(not_mapped));
}

INSTANTIATE_TEST_SUITE_P(, whole_region, testing::ValuesIn(all_worlds()), world_name());

TEST(mapping_the_whole_region, SaysThatThereIsNoneAndCanBeTriedAgain) {
    sandbox machine(low, {"--rule", "op=open-read,nth=1,errno=ENOENT"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, "map_all"), "null\n" + no_region_at_all());
    EXPECT_NE(map_all(user), 0U);
}

TEST(mapping_the_whole_region, CanFailForWantOfAddressSpace) {
    sandbox machine(simulation);
    client user = machine.start({"limits", "rlimit_as 0x1000000"});
    EXPECT_EQ(outcome(user, "map_all"), "null\ntarvo: failed to mmap size 713031680\n");
}

TEST(a_mapping_of_the_whole_region, IsAsLargeAsItsSizeInThe32BitsItIsKeptIn) {
    sandbox machine(high, {"--region", "200000000-40000ffff"});
    client user = machine.start();
    EXPECT_EQ(user.call("mapping " + std::to_string(map_all(user))),
              "rw-s 0x200000000 65536 /dev/mem");
}

TEST(a_mapping_of_the_whole_region, OfExactly4GiBHasNoBytesAndIsRefused) {
    sandbox machine(high, {"--region", "200000000-2ffffffff"});
    client user = machine.start();
    EXPECT_EQ(outcome(user, "map_all"), "null\ntarvo: failed to mmap size 0\n");
}

TEST(a_mapping_of_the_whole_region, Of2GiBAndMoreIsPrintedUnsigned) {
    sandbox machine(high, {"--region", "200000000-2efffffff"});
    client user = machine.start();
    const uint64_t va = map_all(user);
    user.call("fail munmap EIO");
    EXPECT_EQ(outcome(user, "unmap_all"),
              "done\n" + unmap_message(va, 0xf0000000, "Input/output error"));
    user.call("fail mmap64 EAGAIN");
    EXPECT_EQ(outcome(user, "map_all"), "null\ntarvo: failed to mmap size 4026531840\n");
}

// ---- Traces ----

std::string trace_of_map(const std::string& text) {
    return traced(5, "tarvo_map_all", "tarvo_map_all" + text);
}

std::string trace_of_unmap(const std::string& text) {
    return traced(5, "tarvo_unmap_all", "tarvo_unmap_all" + text);
}

/// A client that traces, on a machine whose region starts with `text`.
client tracing_client(sandbox& machine, const std::string& text) {
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "alloc rx_ring 0x2000 me"});
    user.call("poke " + std::to_string(user.map("rx_ring")) + " 0 " + ::quoted(text));
    return user;
}

class tracing_of_the_whole_region : public testing::TestWithParam<world> {};

TEST_P(tracing_of_the_whole_region, ShowsItsFirstBytesAsTextAndNotItsAddressKeptOnPurpose) {
    sandbox machine(GetParam());
    client user = tracing_client(machine, "the first frame");
    user.new_text();
    const std::string va = " va the first frame refcount ";
    const uint64_t address = map_all(user);
    EXPECT_EQ(user.new_text(), trace_of_map("") + trace_of_map(va + "0"));
    map_all(user);
    EXPECT_EQ(user.new_text(), trace_of_map(""));
    EXPECT_EQ(outcome(user, "unmap_all"), "done\n" + trace_of_unmap(va + "2"));
    user.call("fail munmap EINVAL");
    EXPECT_EQ(outcome(user, "unmap_all"),
              "done\n" + trace_of_unmap(va + "1") + trace_of_unmap(" freeing mapall_va") +
                  unmap_message(address, GetParam().bytes, "Invalid argument"));
}

INSTANTIATE_TEST_SUITE_P(, tracing_of_the_whole_region, testing::ValuesIn(all_worlds()),
                         world_name());

TEST(tracing_of_the_whole_region_as_text, ReachesBeyondAPageAndStaysOneLine) {
    sandbox machine(simulation);
    const std::string text = "a\nb" + std::string(5000, 'c');
    client user = tracing_client(machine, text);
    user.new_text();
    map_all(user);
    EXPECT_EQ(user.new_text(),
              trace_of_map("") + trace_of_map(" va a\\nb" + text.substr(3) + " refcount 0"));
}

TEST(tracing_of_the_whole_region_that_is_not_mapped, DropsTheRestOfTheLineKeptOnPurpose) {
    sandbox machine(simulation);
    const std::string failed = "tarvo: failed to mmap size 713031680\n";
    client user = machine.start({"setenv ZUL_TRACE tarvo=5", "limits", "fail mmap64 ENOMEM"});
    EXPECT_EQ(outcome(user, "map_all"),
              "null\n" + trace_of_map("") + failed + trace_of_map(" va "));
    EXPECT_EQ(fatal_outcome(user, "unmap_all"), aborted(trace_of_unmap(" va ") + not_mapped));

    client again = machine.start({"setenv ZUL_TRACE tarvo=5", "limits", "fail mmap64 ENOMEM"});
    again.call("map_all");
    EXPECT_EQ(fatal_outcome(again, "map_all"), aborted(trace_of_map("") + failed_before));
}

TEST(tracing_of_the_whole_region_that_is_not_mapped, IsNotSilentBeforeTheStart) {
    sandbox machine(low, {"--without", "proc"});
    client user = machine.start({"setenv ZUL_TRACE tarvo=5"});
    EXPECT_EQ(fatal_outcome(user, "unmap_all"), aborted(trace_of_unmap(" va ") + not_mapped));
    client starter = machine.start({"setenv ZUL_TRACE tarvo=5"});
    EXPECT_EQ(outcome(starter, "map_all").find("tarvo_map_all"), std::string::npos);
}

TEST(tracing_of_the_whole_region_that_is_not_mapped, NeedsLevel5) {
    sandbox machine(simulation);
    client user = machine.start({"setenv ZUL_TRACE tarvo=4"});
    map_all(user);
    EXPECT_EQ(outcome(user, "unmap_all"), "done\n");
    EXPECT_EQ(user.error_text(), "");
}

} // namespace

} // namespace map_all_test
