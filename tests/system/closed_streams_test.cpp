// A program that was started without some of its standard streams: what is written to their numbers
// never reaches the library's files.

#include "observed.hpp"
#include "sandbox.hpp"

#include <bitset>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace closed_streams_test {

namespace {

/// Which of the descriptors 0, 1 and 2 are closed.
using closed_streams = std::bitset<3>;

constexpr unsigned long combinations = 8;

client start_without(sandbox& machine, closed_streams closed) {
    client user = machine.start();
    for (size_t fd = 0; fd < closed.size(); ++fd) {
        if (closed[fd]) {
            user.call("close " + std::to_string(fd));
        }
    }
    return user;
}

/// Calls that succeed, calls that fail and say so, and the program's own output: every reply.
texts use(client& user) {
    texts replies;
    for (const char* command :
         {"alloc rx_ring 4096 me", "write 0 own_input", "write 1 own_output", "write 2 own_error",
          "register 0 3 0", "register 0 4 0", "iommu_map 0 5 0 3", "alloc rx_ring 8192 me",
          "alloc tx_ring 4096 me", "free tx_ring", "unregister 0 6 0"}) {
        replies.push_back(user.call(command));
    }
    return replies;
}

/// All that is left of a use of the machine.
struct traces {
    std::vector<uint8_t> area;
    std::string memory; ///< from physical address 0 on
    texts requests;
    texts cma_commands;

    explicit traces(const sandbox& machine)
        : area(machine.area().snapshot()), memory(first_bytes(machine.memory_file())),
          requests(machine.request_lines()), cma_commands(machine.cma_commands()) {}

    bool operator==(const traces&) const = default;

  private:
    static std::string first_bytes(const std::filesystem::path& path) {
        std::string bytes(0x10000, '?');
        std::ifstream(path, std::ios::binary)
            .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }
};

const texts refusing_once{"--rule", "op=map,device=0000:04:00.0,nth=1,errno=EIO"};

class closed_streams_of : public testing::TestWithParam<world> {};

TEST_P(closed_streams_of, NeverBecomeTheLibrarysFiles) {
    sandbox usual(GetParam(), refusing_once);
    client with_all = usual.start();
    const texts usual_replies = use(with_all);
    EXPECT_EQ(troubles(usual), texts{});
    const traces usual_traces(usual);
    for (unsigned long i = 1; i < combinations; ++i) {
        const closed_streams closed(i);
        sandbox machine(GetParam(), refusing_once);
        client user = start_without(machine, closed);
        texts expected = usual_replies;
        for (size_t fd = 0; fd < closed.size(); ++fd) {
            expected.at(1 + fd) = closed[fd] ? "Bad file descriptor" : "done";
        }
        EXPECT_EQ(use(user), expected) << closed;
        EXPECT_TRUE(traces(machine) == usual_traces) << closed;
    }
}

TEST_P(closed_streams_of, StayClosed) {
    sandbox machine(GetParam());
    client user = start_without(machine, closed_streams(0b111));
    use(user);
    for (const std::string& fd : user.descriptors()) {
        EXPECT_GE(std::stoi(fd), 3) << fd;
        EXPECT_NE(fd.find(":cloexec"), std::string::npos) << fd;
    }
    EXPECT_EQ(user.descriptors().size(), 3U);
}

INSTANTIATE_TEST_SUITE_P(, closed_streams_of, testing::ValuesIn(all_worlds()), world_name());

TEST(open_streams, CostNoFurtherCall) {
    sandbox machine(cma);
    client user = machine.start();
    use(user);
    const std::string calls = user.call("calls");
    EXPECT_NE(calls.find("fopen(/sys/kernel/tarvo_iommu_map_region,we)"), std::string::npos);
    EXPECT_EQ(calls.find("fcntl"), std::string::npos) << calls;
    EXPECT_EQ(calls.find("fdopen"), std::string::npos) << calls;
}

struct refused_move {
    const char* call; ///< the one that is refused
    std::string said;
};

const std::string no_region =
    "tarvo_init: no DMA memory found\nSIMULATION_VMID environ variable probably missing\n"
    "tarvo: failed to initialize library\n";

/// The files of a start are opened in this order: the driver's, the memory, the area, the lock.
TEST(a_file_that_cannot_be_moved, CountsAsOneThatCannotBeOpened) {
    const std::vector<refused_move> moves{
        {"fail fcntl EMFILE 1",
         "tarvo: failed to open /proc/tarvo\n: Too many open files\n" + no_region},
        {"fail fdopen ENOMEM 1",
         "tarvo: failed to open /proc/tarvo\n: Cannot allocate memory\n" + no_region},
        {"fail fcntl EMFILE 2",
         "tarvo: failed to open DMA memory\n: Too many open files\n" + no_region},
        {"fail fcntl EMFILE 3",
         "Failed to open /var/shmem/tarvo_lib: Too many open files\n" + no_region},
        {"fail fcntl EMFILE 4", "/var/lock/subsys/tarvo_lock: Too many open files\n"
                                "tarvo: failed to initialize library\n"},
    };
    for (const refused_move& move : moves) {
        sandbox machine(low);
        client user = start_without(machine, closed_streams(0b011));
        user.call(move.call);
        const texts before = user.descriptors();
        EXPECT_EQ(user.limits().result, -1) << move.call;
        EXPECT_EQ(user.error_text(), move.said) << move.call;
        EXPECT_EQ(user.descriptors(), before) << move.call;
        EXPECT_EQ(user.limits().result, 0) << move.call;
    }
}

TEST(a_request_file_that_cannot_be_moved, CountsAsOneThatCannotBeOpened) {
    sandbox machine(low);
    client user = start_without(machine, closed_streams(0b001));
    user.limits();
    user.call("fail fcntl EMFILE");
    EXPECT_EQ(outcome(user, "iommu_map 0 3 0 3"),
              "-1\ntarvo: failed to open sysfs file: Too many open files\n");
    EXPECT_EQ(machine.request_lines(), texts{});
}

} // namespace

} // namespace closed_streams_test
