// The lines of a listing: their columns, the buffers they fit in, and damaged records.

#include "dump_lines.hpp"

#include <csignal>

namespace dump_line_test {

namespace {

/// A client in the middle of a listing, whose next chunk has record 2.
client listing_client(sandbox& machine, std::vector<std::string> first_commands) {
    first_commands.emplace_back("dump_begin");
    return machine.start(first_commands);
}

/// Asks with every buffer that is too small, and then with those that are not.
void expect_line_in_buffers(client& user, const std::string& command, const std::string& line) {
    for (size_t room = 0; room <= line.size(); room++) {
        EXPECT_EQ(user.call(command + " " + std::to_string(room)), "end") << room;
    }
    for (size_t room = line.size() + 1; room <= 260; room++) {
        EXPECT_EQ(user.call(command + " " + std::to_string(room)), reply_of(line)) << room;
        user.call("dump_begin");
    }
    EXPECT_EQ(user.error_text(), "");
}

class listed_chunk : public world_test {};

TEST_P(listed_chunk, IsWrittenWhereItFitsAndOtherwiseOfferedAgain) {
    user.alloc("rx_ring", pages(1), "driver");
    user.call("dump_begin");
    const std::string line = chunk_line(2, "rx_ring", "driver", region().start, 4096);
    EXPECT_EQ(line.size(), 200U);
    expect_line_in_buffers(user, "dump_next", line);
}

TEST_P(listed_chunk, FillsItsColumnsWithTheLongestTexts) {
    const std::string name(49, 'n');
    const std::string creator(99, 'c');
    user.alloc(name, pages(1), creator);
    user.alloc("rx_ring", pages(1), "[" + creator + "]");
    EXPECT_EQ(user.dump(),
              (texts{chunk_line(2, name, creator, region().start, 4096),
                     chunk_line(3, "rx_ring",
                                "[" + std::string(46, 'c') + " ... " + std::string(46, 'c') + "]",
                                region().start + pages(1), 4096)}));
}

INSTANTIATE_TEST_SUITE_P(, listed_chunk, testing::ValuesIn(all_worlds()), world_name());

struct record_case {
    const char* name;
    uint64_t pa;
    uint32_t size;
    std::string columns; ///< address and size in the line
};

std::ostream& operator<<(std::ostream& stream, const record_case& record) {
    return stream << record.name;
}

class columns_of_a_chunk : public testing::TestWithParam<record_case> {};

TEST_P(columns_of_a_chunk, AreWidenedWhereANumberNeedsIt) {
    sandbox machine(simulation);
    client user = machine.start({"alloc rx_ring 4096 me"});
    const area_file area = machine.writable_area();
    area.writer().u64(area_offset::chunk(2) + area_offset::pa, GetParam().pa);
    area.writer().u32(area_offset::chunk(2) + area_offset::size, GetParam().size);
    const texts lines = user.dump();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].substr(176), GetParam().columns);
}

INSTANTIATE_TEST_SUITE_P(
    , columns_of_a_chunk,
    testing::Values(record_case{"zero", 0, 0, "0x000000000000         0"},
                    record_case{"nine_digits", 0xabcdef, 999999999, "0x000000abcdef 999999999"},
                    record_case{"ten_digits", 0x23ffff000, 0x7fffffff, "0x00023ffff000 2147483647"},
                    // Signed, as 32-bit programs see it.
                    record_case{"from_2_gib_on", 0x1000, 0x80000000, "0x000000001000 -2147483648"},
                    record_case{"nearly_4_gib", 0x1000, 0xfffff000, "0x000000001000     -4096"},
                    record_case{"wide_address", 0x123456789abcdef0, 1,
                                "0x123456789abcdef0         1"}),
    world_name());

TEST(listed_chunk_with_a_high_number, WidensTheFirstColumn) {
    for (const int index : {999, 1000, 16383}) {
        sandbox machine(simulation);
        machine.start().limits();
        machine.writable_area().writer().i32(area_offset::chunks_free, index);
        client user = machine.start({"alloc rx_ring 4096 me"});
        EXPECT_EQ(user.dump(), texts{chunk_line(index, "rx_ring", "me", 0x1000, 4096)});
    }
}

TEST(listed_chunk_of_the_longest_kind, FitsIn256Bytes) {
    sandbox machine(simulation);
    machine.start().limits();
    const area_file area = machine.writable_area();
    area.writer().i32(area_offset::chunks_free, 16383);
    client user = machine.start({"alloc rx_ring 4096 me"});
    area.writer().u32(area_offset::chunk(16383) + area_offset::size, 0x80000000);
    user.call("dump_begin");
    expect_line_in_buffers(user, "dump_next",
                           chunk_line(16383, "rx_ring", "me", 0x1000, -2147483648LL));
}

// ---- Devices ----

TEST(listed_device, IsWrittenWhereItFitsAndOtherwiseOfferedAgain) {
    sandbox machine(low);
    client user = listing_client(machine, {"register 0 3 0"});
    expect_line_in_buffers(user, "dump_next_device", "0000:03:00.0: online");
}

struct device_case {
    const char* arguments;
    const char* address;
};

TEST(listed_device, ShowsSlotAndFunctionAndWidensDomainAndBus) {
    for (const auto& [arguments, address] : {device_case{"0x1a 0xb 0xff", "001a:0b:1f.7"},
                                             {"0xffff 0xff 0x80", "ffff:ff:10.0"},
                                             {"0x12345 0x123 9", "12345:123:01.1"},
                                             {"0xffffffff 0 0", "ffffffff:00:00.0"},
                                             {"0 0xffffffff 0", "0000:ffffffff:00.0"},
                                             {"0 0 0x105", "0000:00:00.5"},
                                             {"0 0 0xffffffff", "0000:00:1f.7"}}) {
        sandbox machine(simulation);
        client user = machine.start({std::string("register ") + arguments});
        EXPECT_EQ(user.dump(), texts{std::string(address) + ": online"});
    }
}

TEST(listed_device_that_cannot_be_formatted, HasTheSharedTextForItsAddress) {
    sandbox machine(simulation);
    client user = listing_client(machine, {"register 0 3 0", "register 0 4 0", "register 0 5 0"});
    machine.writable_area().writer().u8(area_offset::device(1) + area_offset::online, 0);
    const std::string failed = "Error formatting string";
    user.call("fail asprintf ENOMEM");
    // The device counts as listed.
    EXPECT_EQ(user.call("dump_next_device 256"), reply_of(failed + ": online"));
    user.call("fail asprintf ENOMEM");
    EXPECT_EQ(user.call("dump_next_device 33"), reply_of(failed + ": offline"));
    EXPECT_EQ(user.call("dump_next_device 256"), reply_of("0000:05:00.0: online"));
    EXPECT_EQ(user.call("to_string_err"), reply_of(failed));
    EXPECT_EQ(user.error_text(), "");
}

TEST(listed_device_that_cannot_be_formatted, NeedsTheRoomOfTheSharedText) {
    sandbox machine(simulation);
    client user = listing_client(machine, {"register 0 3 0", "fail asprintf ENOMEM 0"});
    expect_line_in_buffers(user, "dump_next_device", "Error formatting string: online");
}

TEST(listed_devices, CanBe256) {
    sandbox machine(simulation);
    client user = machine.start();
    texts expected;
    for (uint32_t bus = 0; bus < 256; bus++) {
        ASSERT_EQ(user.register_device(0, bus, 0), 0);
        expected.push_back("0000:" + hex(0x100 + bus).substr(1) + ":00.0: online");
    }
    EXPECT_EQ(user.dump(), expected);
}

// ---- Damage ----

class a_damaged_listing : public testing::Test {
  protected:
    area_file area() const { return machine.writable_area(); }

    void expect_death(const char* command, const std::string& last_words) {
        EXPECT_EQ(fatal_outcome(user, command), aborted(last_words));
        EXPECT_TRUE(lock_is_free(machine.lock_file()));
    }

    sandbox machine{simulation};
    client user = machine.start(
        {"alloc first 4096 me", "alloc second 4096 me", "register 0 3 0", "register 0 4 0"});
    const std::string first_line = chunk_line(2, "first", "me", 0x1000, 4096);
    const std::string not_in_use = container_assertion(32, "cur->allocated");
    const std::string no_element = container_assertion(159, "idx >= 0 && idx < MAX");
};

TEST_F(a_damaged_listing, WhoseHeadIsNotInUseEndsTheProcessAtItsBeginning) {
    area().writer().u8(area_offset::chunk(0) + area_offset::allocated, 0);
    expect_death("dump_begin", not_in_use);
}

TEST_F(a_damaged_listing, WhoseHeadLeadsNowhereEndsTheProcessAtItsBeginning) {
    area().writer().i32(area_offset::chunk(0) + area_offset::next, 16384);
    expect_death("dump_begin", no_element);
}

TEST_F(a_damaged_listing, WithoutSuchAFirstDeviceEndsTheProcessAtItsBeginning) {
    area().writer().i32(area_offset::devices_head, 256);
    expect_death("dump_begin", no_element);
}

TEST_F(a_damaged_listing, EndsTheProcessOnceALineOfAChunkThatIsNotInUseFits) {
    user.call("dump_begin");
    area().writer().u8(area_offset::chunk(2) + area_offset::allocated, 0);
    EXPECT_EQ(user.call("dump_next 200"), "end");
    expect_death("dump_next 201", not_in_use);
}

TEST_F(a_damaged_listing, EndsTheProcessOnceALineOfADeviceThatIsNotInUseFits) {
    user.call("dump_begin");
    area().writer().u8(area_offset::device(0) + area_offset::allocated, 0);
    EXPECT_EQ(user.call("dump_next_device 20"), "end");
    expect_death("dump_next_device 21", not_in_use);
}

TEST_F(a_damaged_listing, EndsTheProcessAfterAChunkThatLeadsNowhere) {
    user.call("dump_begin");
    area().writer().i32(area_offset::chunk(2) + area_offset::next, -2);
    expect_death("dump_next 256", no_element);
}

TEST_F(a_damaged_listing, EndsTheProcessAfterADeviceThatLeadsNowhere) {
    user.call("dump_begin");
    area().writer().i32(area_offset::device(0) + area_offset::next, 256);
    expect_death("dump_next_device 256", no_element);
}

TEST_F(a_damaged_listing, IsOverWhereTheListsSayTheyEnd) {
    area().writer().i32(area_offset::chunks_tail, 2);
    area().writer().i32(area_offset::devices_tail, 0);
    EXPECT_EQ(user.dump(), (texts{first_line, "0000:03:00.0: online"}));
}

TEST_F(a_damaged_listing, HasNoChunksWhereTheHeadIsTheListsLast) {
    area().writer().i32(area_offset::chunks_tail, 0);
    EXPECT_EQ(user.dump(), (texts{"0000:03:00.0: online", "0000:04:00.0: online"}));
}

TEST_F(a_damaged_listing, EndsTheProcessAtAChunkItHasFreedItselfKeptOnPurpose) {
    user.call("dump_begin");
    EXPECT_EQ(user.free("first"), 0);
    expect_death("dump_next 256", not_in_use);
}

} // namespace

} // namespace dump_line_test
