#include "in_sandbox.hpp"

#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace {

struct wrong_case {
    const char* name;
    words arguments;
    /// What the message must name.
    const char* named;
};

class wrong : public testing::TestWithParam<wrong_case> {};

TEST_P(wrong, IsReportedInOneLineThatNamesIt) {
    const auto ended = run_to_end(tool(GetParam().arguments));
    EXPECT_EQ(ended.status, 125);
    EXPECT_EQ(ended.output, "");
    EXPECT_TRUE(ended.errors.starts_with("tarvo-sandbox: ")) << ended.errors;
    EXPECT_NE(ended.errors.find(GetParam().named), std::string::npos) << ended.errors;
    EXPECT_EQ(ended.errors.find('\n'), ended.errors.size() - 1) << ended.errors;
}

wrong_case wrong_rule(const char* name, const char* rule, const char* named) {
    return {name, {"--rule", rule, "--", "true"}, named};
}

INSTANTIATE_TEST_SUITE_P(
    Options, wrong,
    testing::Values(
        wrong_case{"no_command", {}, "--"}, wrong_case{"empty_command", {"--"}, "--"},
        wrong_case{"command_without_dashes", {"true"}, "true"},
        wrong_case{"unknown_option", {"--colour", "--", "true"}, "--colour"},
        wrong_case{"option_without_value", {"--world", "--", "true"}, "--world"},
        wrong_case{"world", {"--world", "flat", "--", "true"}, "flat"},
        wrong_case{"region", {"--region", "1000", "--", "true"}, "1000"},
        wrong_case{"region_upside_down", {"--region", "2000-1000", "--", "true"}, "2000-1000"},
        wrong_case{"region_beyond_all", {"--region", "0-ffffffffffffffff", "--", "true"}, "END"},
        wrong_case{"region_without_name", {"--region", "1-2:", "--", "true"}, "1-2:"},
        wrong_case{"region_without_world",
                   {"--region", "100000000-13fffffff", "--", "true"},
                   "--world high --region"},
        wrong_case{"region_line_without_world",
                   {"--region-line", "100000000 13fffffff 0 tarvo", "--", "true"},
                   "--world high --region"},
        wrong_case{"item", {"--without", "kernel", "--", "true"}, "kernel"},
        wrong_case{"log", {"--log", "/nowhere/log", "--", "true"}, "/nowhere/log"},
        wrong_case{"control", {"--control", "/nowhere/c", "--", "true"}, "/nowhere/c"},
        wrong_case{"control_empty", {"--control", "", "--", "true"}, "--control is empty"},
        wrong_case{"join_after_options",
                   {"--world", "low", "join", "--control", "/nowhere/c", "--", "true"},
                   "'join'"},
        wrong_case{"join_without_control", {"join", "--", "true"}, "--control"},
        wrong_case{"join_nobody", {"join", "--control", "/nowhere/c", "--", "true"}, "/nowhere/c"},
        wrong_case{"rule_nobody", {"rule", "--control", "/tmp/nobody", "--list"}, "/tmp/nobody"},
        wrong_case{"rule_nothing", {"rule", "--control", "/tmp/nobody"}, "--list"}),
    [](const auto& tested) { return std::string{tested.param.name}; });

INSTANTIATE_TEST_SUITE_P(
    Rules, wrong,
    testing::Values(
        wrong_rule("no_key", "map", "'map'"), wrong_rule("unknown_key", "colour=red", "'colour'"),
        wrong_rule("twice", "errno=EIO,errno=EIO", "'errno'"),
        wrong_rule("no_answer", "op=map", "errno="),
        wrong_rule("two_answers", "op=map,errno=EIO,short=3", "exclude"),
        wrong_rule("op", "op=remap,errno=EIO", "'remap'"),
        wrong_rule("file", "file=sys,errno=EIO", "'sys'"),
        wrong_rule("at", "at=read,errno=EIO", "'read'"),
        wrong_rule("device", "device=03:00.0,errno=EIO", "'03:00.0'"),
        wrong_rule("device_slot", "device=0000:03:20.0,errno=EIO", "'0000:03:20.0'"),
        wrong_rule("device_function", "device=0000:03:00.8,errno=EIO", "'0000:03:00.8'"),
        wrong_rule("range", "range=0x10,errno=EIO,op=map,range=1", "range"),
        wrong_rule("range_upside_down", "range=0x20-0x10,errno=EIO", "'0x20-0x10'"),
        wrong_rule("name", "name=,errno=EIO", "name=''"),
        wrong_rule("nth_zero", "nth=0,errno=EIO", "nth='0'"),
        wrong_rule("nth_upside_down", "nth=3-2,errno=EIO", "nth='3-2'"),
        wrong_rule("nth_mixed", "nth=2-3+,errno=EIO", "nth='2-3+'"),
        wrong_rule("errno_name", "errno=EOOPS", "'EOOPS'"),
        wrong_rule("errno_zero", "errno=0", "errno='0'"),
        wrong_rule("errno_large", "errno=512", "errno='512'"),
        wrong_rule("errno_at_close", "at=close,errno=ENOSYS", "ENOSYS"),
        wrong_rule("address", "address=here", "'here'"),
        wrong_rule("address_op", "op=map,address=0x0", "op=allocate"),
        wrong_rule("listing", "listing=upside-down", "'upside-down'"),
        wrong_rule("listing_op", "op=map,listing=empty", "op=open-read"),
        wrong_rule("short", "short=-1", "'-1'"),
        wrong_rule("short_at_close", "at=close,short=1", "at=write"),
        wrong_rule("open_at_close", "op=open-read,at=close,errno=EIO", "at=open"),
        wrong_rule("map_at_open", "op=map,at=open,errno=EIO", "at=open"),
        wrong_rule("op_and_file", "op=map,file=proc,errno=EIO", "file=sysfs"),
        wrong_rule("device_and_name", "device=0000:03:00.0,name=x,errno=EIO", "file=proc"),
        wrong_rule("part_empty", "errno=EIO,", "''")),
    [](const auto& tested) { return "rule_" + std::string{tested.param.name}; });

/// A file of another kind belongs to somebody: it is refused and stays as it is.
TEST(paths, OfTheWrongKindAreRefusedAndLeftAlone) {
    const temporary_folder folder;
    const std::string path = folder.path() / "precious";
    std::ofstream{path} << "kept";
    for (const char* option : {"--control", "--state"}) {
        const auto ended = run_to_end(tool({option, path, "--", "true"}));
        EXPECT_EQ(ended.status, 125);
        EXPECT_NE(ended.errors.find(option + std::string{" "} + path), std::string::npos)
            << ended.errors;
        EXPECT_EQ(file_text(path), "kept") << option;
    }
}

TEST(help, NamesEveryOptionAndPrintsNothingElse) {
    const auto ended = run_to_end(tool({"--help"}));
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.errors, "");
    for (const char* option :
         {"--world", "--region", "--region-line", "--without", "--rule", "--log", "--state",
          "--control", "--help", "--version", "join", "rule"}) {
        EXPECT_NE(ended.output.find(option), std::string::npos) << option;
    }
}

TEST(help, IsThereForEachSubcommand) {
    EXPECT_NE(run_to_end(tool({"join", "--help"})).output.find("tarvo-sandbox join"),
              std::string::npos);
    EXPECT_NE(run_to_end(tool({"rule", "--help"})).output.find("--clear"), std::string::npos);
}

TEST(version, IsOneLine) {
    const auto ended = run_to_end(tool({"--version"}));
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(ended.output.starts_with("tarvo-sandbox ")) << ended.output;
}

} // namespace
