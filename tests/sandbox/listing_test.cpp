#include "in_sandbox.hpp"

#include <gtest/gtest.h>
#include <string>

namespace {

const std::string region_line = "100000000\t13fffffff\t0\tCMA\n";

/// What /proc/tarvo shows in world cma, with these rules, after the commands.
std::string listing(const words& rules, const words& commands) {
    words options{"--world", "cma"};
    for (const auto& rule : rules) {
        options.insert(options.end(), {"--rule", rule});
    }
    std::string script;
    for (const auto& command : commands) {
        script += "echo '" + command + "' > /proc/tarvo;";
    }
    return run_script(options, script + "cat /proc/tarvo").output;
}

const words two_chunks{"a x 1000", "a y 2001"};

TEST(listing, ShowsAllocationsInTheirOrder) {
    EXPECT_EQ(listing({}, two_chunks), region_line + "x\t100000000\t1000\ny\t100001000\t2001\n");
}

TEST(listing, GivesTheFirstRoomThatFits) {
    EXPECT_EQ(listing({}, {"a x 1000", "a y 2001", "a z 1", "r y 2001", "a b 4000", "a c 3000"}),
              region_line + "x\t100000000\t1000\nz\t100004000\t1\nb\t100005000\t4000\n"
                            "c\t100001000\t3000\n");
}

TEST(listing, FillsTheRegionToTheLastByte) {
    EXPECT_EQ(listing({}, {"a x 40000000"}), region_line + "x\t100000000\t40000000\n");
}

TEST(listing, IsThatOfTheMomentOfTheOpen) {
    const auto ended = run_script({"--world", "cma"}, R"(
        exec 3< /proc/tarvo; echo 'a x 1000' > /proc/tarvo; cat <&3)");
    EXPECT_EQ(ended.output, region_line);
}

TEST(listing, ShowsTheAddressThatARuleHandsOut) {
    EXPECT_EQ(listing({"op=allocate,name=x,address=0x0", "address=0x123456000"}, two_chunks),
              region_line + "x\t0\t1000\ny\t123456000\t2001\n");
}

struct fault_case {
    const char* name;
    const char* rule;
    std::string shown;
};

class listing_fault : public testing::TestWithParam<fault_case> {};

TEST_P(listing_fault, AltersTheListing) {
    EXPECT_EQ(listing({GetParam().rule}, two_chunks), GetParam().shown);
}

const std::string line_x = "x\t100000000\t1000\n";
const std::string line_y = "y\t100001000\t2001\n";

INSTANTIATE_TEST_SUITE_P(
    Rules, listing_fault,
    testing::Values(
        fault_case{"missing_field", "listing=missing-field,name=x",
                   region_line + "x\t100000000\n" + line_y},
        fault_case{"missing_field_everywhere", "listing=missing-field",
                   region_line + "x\t100000000\ny\t100001000\n"},
        fault_case{"garbage", "listing=garbage,name=y", region_line + line_x + "garbage\n"},
        fault_case{"wrong_size", "listing=wrong-size,name=y",
                   region_line + line_x + "y\t100001000\t3001\n"},
        fault_case{"address_zero", "listing=address-zero,name=x",
                   region_line + "x\t0\t1000\n" + line_y},
        fault_case{"extra_name", "listing=extra-name,name=x",
                   region_line + "x_extra\t100000000\t1000\n" + line_x + line_y},
        fault_case{"extra_size", "listing=extra-size,name=x",
                   region_line + "x\t100000000\t2000\n" + line_x + line_y},
        fault_case{"empty", "listing=empty", ""},
        fault_case{"no_first_line", "listing=no-first-line", line_x + line_y},
        fault_case{"first_line_only", "listing=first-line-only", region_line},
        fault_case{"of_another_name", "listing=garbage,name=z", region_line + line_x + line_y},
        fault_case{"not_due", "listing=empty,nth=2", region_line + line_x + line_y}),
    [](const auto& tested) { return std::string{tested.param.name}; });

} // namespace
