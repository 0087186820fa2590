// A process remembers the order of the list that it walked. Others change the list meanwhile: what
// it finds afterwards is what a process finds that remembers nothing.

#include "world_test.hpp"

#include <algorithm>
#include <numeric>
#include <random>

namespace stale_order_test {

namespace {

constexpr int chunk_count = 40;
constexpr uint64_t one_page = 4096;

std::string name_of(int chunk) {
    return "chunk_" + std::to_string(chunk);
}

std::vector<int> all_chunks() {
    std::vector<int> chunks(chunk_count);
    std::iota(chunks.begin(), chunks.end(), 0);
    return chunks;
}

/// What a process says of every name and of the whole list.
texts picture(client& user) {
    texts seen = user.dump();
    for (const int chunk : all_chunks()) {
        const std::string command = "map " + name_of(chunk) + " 1 0 0";
        const std::string va = user.call(command);
        seen.push_back(va == "null" ? "none" : user.call("mapping " + va));
        if (va != "null") {
            user.call("unmap " + name_of(chunk) + " " + va + " 0");
        }
    }
    return seen;
}

class a_remembered_order : public testing::Test {
  protected:
    a_remembered_order() {
        for (const int chunk : all_chunks()) {
            other.alloc(name_of(chunk), one_page);
        }
        picture(veteran);
    }

    void expect_no_difference() {
        client newcomer = machine.start();
        EXPECT_EQ(picture(veteran), picture(newcomer));
        EXPECT_EQ(troubles(machine), texts{});
    }

    sandbox machine{low};
    client other = machine.start();
    client veteran = machine.start();
};

TEST_F(a_remembered_order, IsCorrectedWhereOthersFreeAndAllocate) {
    for (const int chunk : {0, 17, 18, chunk_count - 1}) {
        other.free(name_of(chunk));
        expect_no_difference();
    }
    for (const int chunk : {18, 0, chunk_count - 1, 17}) {
        other.alloc(name_of(chunk), one_page);
        expect_no_difference();
    }
}

TEST_F(a_remembered_order, IsCorrectedAfterOthersMadeAllElementsChangePlaces) {
    std::mt19937 random(20);
    for (int round = 0; round < 4; round++) {
        std::vector<int> chunks = all_chunks();
        std::ranges::shuffle(chunks, random);
        for (const int chunk : chunks) {
            other.free(name_of(chunk));
        }
        std::ranges::shuffle(chunks, random);
        for (const int chunk : chunks) {
            other.alloc(name_of(chunk), one_page);
        }
        expect_no_difference();
    }
}

TEST_F(a_remembered_order, IsCorrectedWhereTheProcessItselfChangesTheList) {
    veteran.free(name_of(20));
    veteran.free(name_of(3));
    expect_no_difference();
    veteran.alloc("another", one_page);
    veteran.alloc(name_of(3), 2 * one_page);
    expect_no_difference();
}

TEST_F(a_remembered_order, PlacesNewChunksWhereTheListSaysThatThereIsRoom) {
    other.free(name_of(11));
    EXPECT_EQ(veteran.alloc("another", one_page), low.start_dma + 11 * one_page);
    other.free("another");
    other.alloc("taken", one_page);
    EXPECT_EQ(veteran.alloc("another", one_page), low.start_dma + chunk_count * one_page);
}

TEST_F(a_remembered_order, ServesNamesThatOccurTwiceLowestFirst) {
    other.free(name_of(5));
    other.alloc(name_of(30), 2 * one_page); // at the end
    other.free(name_of(4));
    other.alloc(name_of(30), 2 * one_page); // before the first one, where 4 and 5 were
    EXPECT_EQ(veteran.alloc(name_of(30), 2 * one_page), low.start_dma + 4 * one_page);
    expect_no_difference();
}

struct damage {
    const char* name;
    void (*make)(const area_writer& area);
    std::string last_words; ///< empty: the process goes on
    /// Chunks that it does not see.
    int hidden_from = 0;
    int hidden_to = 0;

    friend std::ostream& operator<<(std::ostream& stream, const damage& one) {
        return stream << one.name;
    }
};

constexpr int twelfth = 13; // chunks follow the two sentinels

std::vector<damage> damages() {
    namespace at = area_offset;
    const std::string out_of_range = container_assertion(159, "idx >= 0 && idx < MAX");
    const std::string not_in_use = container_assertion(32, "cur->allocated");
    return {
        {"LinkTooHigh",
         [](const area_writer& area) { area.i32(at::chunk(twelfth) + at::next, 16384); },
         out_of_range},
        {"LinkTooLow", [](const area_writer& area) { area.i32(at::chunk(twelfth) + at::next, -2); },
         out_of_range},
        {"LinkToAFreeElement",
         [](const area_writer& area) { area.i32(at::chunk(twelfth) + at::next, 9000); },
         not_in_use},
        {"ElementNotInUse",
         [](const area_writer& area) { area.u8(at::chunk(twelfth) + at::allocated, 0); },
         not_in_use},
        {"TailOutOfRange", [](const area_writer& area) { area.i32(at::chunks_tail, 16384); },
         out_of_range},
        {"NoLink", [](const area_writer& area) { area.i32(at::chunk(twelfth) + at::next, -1); }, "",
         12, chunk_count},
        {"LinkPastThree",
         [](const area_writer& area) { area.i32(at::chunk(twelfth) + at::next, twelfth + 4); }, "",
         12, 15},
        {"TailInTheMiddle", [](const area_writer& area) { area.i32(at::chunks_tail, twelfth); }, "",
         12, chunk_count},
        {"NoTail", [](const area_writer& area) { area.i32(at::chunks_tail, -1); }, ""},
    };
}

class a_remembered_order_of_a_damaged_list : public testing::TestWithParam<damage> {
  protected:
    a_remembered_order_of_a_damaged_list() {
        for (const int chunk : all_chunks()) {
            veteran.alloc(name_of(chunk), one_page);
        }
        picture(veteran);
        GetParam().make(machine.writable_area().writer());
    }

    sandbox machine{low};
    client veteran = machine.start();
    /// Has found its sentinels before the damage, and never walked.
    client newcomer = machine.start({"limits"});
};

TEST_P(a_remembered_order_of_a_damaged_list, HidesNothing) {
    const damage& done = GetParam();
    for (client* each : {&veteran, &newcomer}) {
        if (!done.last_words.empty()) {
            const std::string command = "map " + name_of(chunk_count - 1) + " 1 0 0";
            EXPECT_EQ(fatal_outcome(*each, command), aborted(done.last_words));
            continue;
        }
        for (const int chunk : all_chunks()) {
            const bool hidden = done.hidden_from <= chunk && chunk < done.hidden_to;
            EXPECT_EQ(each->call("map " + name_of(chunk) + " 1 0 0") == "null", hidden) << chunk;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, a_remembered_order_of_a_damaged_list, testing::ValuesIn(damages()),
                         [](const auto& test) { return test.param.name; });

} // namespace

} // namespace stale_order_test
