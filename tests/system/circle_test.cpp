// A link that leads back into its list would keep a walk for ever, and the lock with it. The walk
// ends its process instead, and the others go on.

#include "texts.hpp"
#include "world_test.hpp"

namespace circle_test {

namespace {

namespace at = area_offset;

constexpr int last_chunk = 4; // after the two sentinels and two more
constexpr int nobody = 200;   // an element that is not on its list

/// A damage, and a call that then walks for ever. Chunks are a, b and c, of a page each; devices
/// are two, and each chunk is mapped for both.
struct circle {
    const char* name;
    void (*make)(const area_writer& area);
    std::vector<std::string> calls;

    friend std::ostream& operator<<(std::ostream& stream, const circle& one) {
        return stream << one.name;
    }
};

const std::vector<std::string> searches = {"alloc d 4096 me", "free d", "map d 1 0 0",
                                           "unmap d 0x1000 0", "find 0x80010000"};

std::vector<std::string> calls_that_pass_all_chunks() {
    std::vector<std::string> calls = searches;
    calls.insert(calls.end(), {"register 0 9 0", "unregister 0 3 0"});
    return calls;
}

std::vector<std::string> calls_that_pass_all_devices() {
    return {"alloc d 4096 me", "register 0 9 0", "unregister 0 9 0"};
}

std::vector<std::string> calls_that_pass_all_references() {
    return {"register 0 9 0", "unregister 0 4 0"};
}

std::vector<circle> circles() {
    return {
        {"OfAllChunks",
         [](const area_writer& area) { area.i32(at::chunk(last_chunk) + at::next, 2); },
         calls_that_pass_all_chunks()},
        {"OfOneChunk",
         [](const area_writer& area) { area.i32(at::chunk(last_chunk) + at::next, last_chunk); },
         calls_that_pass_all_chunks()},
        {"OfChunksBySkippingTheTail",
         [](const area_writer& area) {
             area.i32(at::chunk(last_chunk) + at::next, 0);
             area.i32(at::chunks_tail, nobody);
         },
         searches}, // requests end the process at the sentinel, which has no bytes
        {"OfChunksWithATailThatIsNotMet",
         [](const area_writer& area) { area.i32(at::chunks_tail, nobody); },
         {"free d"}}, // the others stop before the sentinel
        {"OfChunksWithoutATail",
         [](const area_writer& area) { area.i32(at::chunks_tail, -1); },
         {"free d"}},
        {"OfAllDevices", [](const area_writer& area) { area.i32(at::devices_tail, nobody); },
         calls_that_pass_all_devices()},
        {"OfOneDevice", [](const area_writer& area) { area.i32(at::device(0) + at::next, 0); },
         calls_that_pass_all_devices()},
        {"OfAllReferences",
         [](const area_writer& area) { area.i32(at::chunk(last_chunk) + at::devs_tail, nobody); },
         {"register 0 9 0"}},
        {"OfOneReference",
         [](const area_writer& area) { area.i32(at::ref(last_chunk, 0) + at::next, 0); },
         calls_that_pass_all_references()},
    };
}

const std::vector<std::string> preparation = {
    "alloc a 4096 me", "alloc b 4096 me", "alloc c 4096 me", "register 0 3 0", "register 0 4 0"};

const std::string endless = aborted(container_assertion(166, "visited <= MAX"));

class a_circle_in_the_lists : public testing::TestWithParam<circle> {
  protected:
    /// Starts `user` before the damage, makes it, and says how the call ended.
    static std::string ended(const std::string& call, const std::vector<std::string>& walks) {
        sandbox machine(low);
        client author = machine.start(preparation);
        client user = machine.start(walks);
        GetParam().make(machine.writable_area().writer());
        const std::string end = fatal_outcome(user, call);
        EXPECT_TRUE(lock_is_free(machine.lock_file()));
        return end;
    }
};

TEST_P(a_circle_in_the_lists, EndsTheProcessThatWalksItAndGivesTheLockBack) {
    for (const std::string& call : GetParam().calls) {
        EXPECT_EQ(ended(call, {"limits"}), endless) << call;
        EXPECT_EQ(ended(call, {"find 0x80010000", "map d 1 0 0"}), endless)
            << call << ", order known";
    }
}

/// A listing that is asked for so many lines, and then for one more.
std::string end_of_listing(client& user, const std::string& command, int lines) {
    user.call("dump_begin");
    for (int i = 0; i < lines; i++) {
        user.send(command);
        user.reply();
    }
    return fatal_outcome(user, command);
}

TEST(a_circle, EndsTheProcessThatListsIt) {
    sandbox machine(low);
    client author = machine.start(preparation);
    client user = machine.start({"limits"});
    client another = machine.start({"limits"});
    const area_file file = machine.writable_area();
    file.writer().i32(at::chunk(last_chunk) + at::next, last_chunk);
    file.writer().i32(at::devices_tail, nobody);
    EXPECT_EQ(end_of_listing(user, "dump_next 256", 16383), endless);
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
    EXPECT_EQ(end_of_listing(another, "dump_next_device 256", 255), endless);
    EXPECT_TRUE(lock_is_free(machine.lock_file()));
}

INSTANTIATE_TEST_SUITE_P(, a_circle_in_the_lists, testing::ValuesIn(circles()),
                         [](const auto& test) { return test.param.name; });

} // namespace

} // namespace circle_test
