#include "command_line.hpp"

#include "common/failure.hpp"
#include "common/refusal_text.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <string>

namespace driver_check {

namespace {

constexpr const char* purpose =
    "Checks the kernel driver of this machine against what libtarvo expects of one, clause by\n"
    "clause as driver.md numbers them. Nothing is mapped, allocated or written unless a\n"
    "device is named that may be used.";

constexpr const char* footer =
    "Prints one line a clause, in the Test Anything Protocol. Ends with 0 where no clause is\n"
    "broken, 1 where one is, 2 after a wrong option, 3 where the checks could not run.\n"
    "See tarvo-driver-check(8).";

std::optional<tarvo::device> parse_device(const char* option, const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const auto parsed = tarvo::device::parse(text);
    if (!parsed) {
        throw failure{exit_status::usage, fmt::format("{}: {}", option, parsed.error().message())};
    }
    return *parsed;
}

} // namespace

std::optional<options> parse_command_line(int argc, const char* const* argv) {
    CLI::App parser{purpose, "tarvo-driver-check"};
    std::string device;
    std::string absent_device;
    options chosen;
    parser.footer(footer);
    parser.set_help_flag("-h,--help", "this text");
    parser.set_version_flag("--version", "tarvo-driver-check " TARVO_DRIVER_CHECK_VERSION,
                            "the version");
    parser
        .add_option("--device", device,
                    "a PCI device that nobody uses meanwhile, such as 0000:03:00.0: its clauses\n"
                    "are checked, too, with the region's last pages or with memory of CMA")
        ->type_name("ADDRESS");
    parser
        .add_option("--absent-device", absent_device,
                    "the address of a missing device, to check how the driver refuses it")
        ->type_name("ADDRESS");
    parser.add_flag("--json", chosen.json, "print a JSON object instead");
    try {
        parser.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        if (wrong.get_exit_code() == 0) {
            parser.exit(wrong); // prints help or version
            return std::nullopt;
        }
        throw failure{exit_status::usage, fmt::format("{}; see 'tarvo-driver-check --help'",
                                                      refusal_text(parser, wrong))};
    }
    chosen.device = parse_device("--device", device);
    chosen.absent_device = parse_device("--absent-device", absent_device);
    return chosen;
}

} // namespace driver_check
