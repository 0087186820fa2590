// What an allocation writes into the shared area, and the arithmetic on sizes.

#include "world_test.hpp"

namespace allocate_record_test {

namespace {

namespace offset = area_offset;

void write_empty_reference_list(const area_writer& area, int chunk) {
    for (int i = 0; i < 255; i++) {
        area.i32(offset::ref(chunk, i) + offset::next, i + 1);
    }
    area.i32(offset::ref(chunk, 255) + offset::next, -1);
    area.i32(offset::chunk(chunk) + offset::devs_head, -1);
    area.i32(offset::chunk(chunk) + offset::devs_tail, -1);
    area.i32(offset::chunk(chunk) + offset::devs_free, 0);
}

class record : public world_test {};

TEST_P(record, IsWrittenWithItsLinksAndNoOtherByteOfTheArea) {
    user.limits();
    std::vector<uint8_t> expected = machine.area().snapshot();
    const area_writer area(expected);
    const size_t at = offset::chunk(2);
    area.i32(at + offset::next, 1);
    area.i32(at + offset::prev, 0);
    area.u8(at + offset::allocated, 1);
    area.text(at + offset::name, "rx_ring");
    area.u64(at + offset::pa, region().start);
    area.u32(at + offset::size, 8192);
    area.text(at + offset::creator, "the driver");
    write_empty_reference_list(area, 2);
    area.i32(offset::chunk(0) + offset::next, 2);
    area.i32(offset::chunk(1) + offset::prev, 2);
    area.i32(offset::chunks_free, 3);
    user.alloc("rx_ring", 5000, "the driver");
    EXPECT_EQ(first_difference(machine.area().view().bytes(), expected), "");
}

INSTANTIATE_TEST_SUITE_P(, record, testing::ValuesIn(all_worlds()), world_name());

/// So many different letters, so that it shows which of them are kept.
std::string letters(size_t count) {
    std::string text;
    for (size_t i = 0; i < count; i++) {
        text += static_cast<char>('!' + i % 91);
    }
    return text;
}

TEST(a_creator, IsStoredWholeUpTo99BytesAndOtherwiseByItsEnds) {
    sandbox machine(simulation);
    client user = machine.start();
    for (const size_t length : {1U, 98U, 99U, 100U, 101U, 150U, 3000U}) {
        const std::string creator = letters(length);
        user.alloc("n" + std::to_string(length), 1, creator);
        const std::vector<area_chunk> chunks = machine.area().view().chunks();
        const std::string kept =
            length < 100 ? creator : creator.substr(0, 47) + " ... " + creator.substr(length - 47);
        EXPECT_EQ(chunks[chunks.size() - 2].creator, kept);
    }
    EXPECT_EQ(troubles(machine), texts{});
}

TEST(a_name, MayHoldAnyByteInARegionOfTheLibrarysOwn) {
    sandbox machine(simulation);
    client user = machine.start();
    user.call(R"(alloc "two words" 1 me)");
    user.call(R"(alloc "\xff\x01\n" 1 me)");
    EXPECT_EQ(layout(machine), "two words:0+1 \xff\x01\n:1+1");
}

struct rounding {
    uint64_t bytes;
    uint32_t kept_bytes;
};

TEST(a_size, IsRoundedUpToWholePagesIn32Bits) {
    const std::vector<rounding> cases{
        {1, 4096},           {4095, 4096},        {4096, 4096},
        {4097, 8192},        {0x10000, 0x10000},  {0x100000001, 4096},
        {0x100001000, 4096}, {0x100001001, 8192}, {0x7700003000, 12288},
    };
    for (const world& region : {simulation, cma}) {
        sandbox machine(region);
        client user = machine.start();
        for (const rounding& one : cases) {
            EXPECT_EQ(user.alloc("rx_ring", one.bytes), region.start_dma) << one.bytes;
            EXPECT_EQ(machine.area().view().chunk(2).size, one.kept_bytes) << one.bytes;
            EXPECT_EQ(user.free("rx_ring"), 0) << one.bytes;
        }
        EXPECT_EQ(user.error_text(), "");
    }
}

TEST(a_size, IsRoundedToThePagesOfTheMachine) {
    sandbox machine(low);
    client user = machine.start({"pretend_page_bytes 65536"});
    EXPECT_EQ(user.alloc("rx_ring", 1), 0x80000000U);
    EXPECT_EQ(user.alloc("tx_ring", 65537), 0x80010000U);
    EXPECT_EQ(layout(machine), "rx_ring:0+16 tx_ring:16+32");
}

class size_that_wraps : public world_test {
  protected:
    const std::string empty_mapping =
        "tarvo_alloc: mmap failed!: Invalid argument\n" + element_not_in_use();
};

TEST_P(size_that_wraps, RoundsToNothingAndEndsTheProcessKeptOnPurpose) {
    for (const char* size : {"0xfffff001", "0xffffffff", "0x100000000", "0x1fffffff0",
                             "0xffffffff00000000", "0xffffffffffffffff"}) {
        client fresh = machine.start();
        EXPECT_EQ(fatal_outcome(fresh, std::string("alloc rx_ring ") + size + " me"),
                  aborted(empty_mapping))
            << size;
        EXPECT_EQ(layout(machine), "");
        EXPECT_EQ(troubles(machine), texts{});
    }
}

TEST_P(size_that_wraps, IsAnotherSizeForANameThatExists) {
    user.alloc("rx_ring", 4096);
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 0xffffffff me"),
              aborted(size_mismatch + empty_mapping));
    EXPECT_EQ(layout(machine), "rx_ring:0+1");
}

TEST_P(size_that_wraps, IsTakenForANewRecordWhereARecordOfThatNameHasNoSize) {
    user.alloc("rx_ring", 4096);
    machine.writable_area().writer().u32(offset::chunk(2) + offset::size, 0);
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 0x100000000 me"), aborted(empty_mapping));
}

TEST_P(size_that_wraps, EndsTheProcessInTheTranslationWhereADeviceIsOnline) {
    user.register_device(0, 3, 0);
    EXPECT_EQ(fatal_outcome(user, "alloc rx_ring 0x100000000 me"), aborted(not_in_the_region()));
    EXPECT_EQ(machine.request_lines(), texts{});
    // What was half done stays.
    EXPECT_EQ(layout(machine), "rx_ring:0+0");
}

INSTANTIATE_TEST_SUITE_P(, size_that_wraps, testing::ValuesIn(region_worlds()), world_name());

class a_full_list : public testing::Test {
  protected:
    sandbox machine{simulation};
    client user = machine.start();
    uint32_t last = user.fill("chunk_", 16382);
};

TEST_F(a_full_list, HasRoomForNoMoreThan16382Chunks) {
    EXPECT_EQ(last, 0x3ffe000U);
    EXPECT_EQ(machine.area().view().chunk_ends().free, -1);
    EXPECT_EQ(troubles(machine), texts{});
    EXPECT_EQ(outcome(user, "alloc one_more 1 me"), "0x0\n");
    client watched = machine.start({"setenv ZUL_TRACE tarvo=3"});
    EXPECT_EQ(outcome(watched, "alloc one_more 1 me"),
              "0x0\n" + traced(3, "tarvo_alloc_func",
                               "tarvo: tarvo_alloc_func() no free tarvo chunks left"));
    EXPECT_EQ(troubles(machine), texts{});

    // As many records as there can be do not make a circle.
    EXPECT_EQ(user.free("__tail"), -1);
    EXPECT_EQ(watched.find(0x3ffe000).name, "chunk_16381");

    // Sharing needs no record, and a freed one serves again.
    EXPECT_EQ(user.alloc("chunk_0", 1), 0x1000U);
    EXPECT_EQ(user.free("chunk_7000"), 0);
    EXPECT_EQ(user.alloc("one_more", 1), 0x1000U + 7000 * 0x1000U);
    EXPECT_EQ(machine.area().view().chunk(7002).name, "one_more");
    EXPECT_EQ(user.alloc("two_more", 1), 0U);
    EXPECT_EQ(user.error_text(), "");
}

} // namespace

} // namespace allocate_record_test
