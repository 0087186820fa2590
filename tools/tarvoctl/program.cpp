#include "program.hpp"

#include "failure.hpp"
#include "host/cross_process_lock.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

constexpr const char* purpose =
    "Looks into the region that libtarvo hands out, and works on it: what is in it, who put it\n"
    "there, who has it mapped, which device sees it.";

int status_number(exit_status status) {
    return static_cast<int>(status);
}

std::string one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

/// A size's unit as a factor; 0 for what is none.
uint64_t factor_of(std::string_view unit) {
    constexpr uint64_t step = 1024;
    if (unit.empty())
        return 1;
    if (unit == "K" || unit == "k" || unit == "KiB")
        return step;
    if (unit == "M" || unit == "m" || unit == "MiB")
        return step * step;
    return unit == "G" || unit == "g" || unit == "GiB" ? step * step * step : 0;
}

} // namespace

program::program() : app_{purpose, "tarvoctl"} {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "tarvoctl " TARVOCTL_VERSION);
    app_.footer("'tarvoctl COMMAND --help' tells the options; tarvoctl(1) tells all.");
}

CLI::App& program::add(const std::string& name, const std::string& about, const std::string& group,
                       action run) {
    CLI::App* const command = app_.add_subcommand(name, about)->group(group);
    command->callback([this, run = std::move(run)] { chosen_ = run; });
    return *command;
}

int program::run(int argc, char** argv) {
    try {
        app_.parse(argc, argv);
        return status_number(chosen_());
    } catch (const CLI::ParseError& wrong) {
        if (wrong.get_exit_code() == 0) // help or version
            return app_.exit(wrong);
        fmt::print(stderr, "tarvoctl: {}; see tarvoctl --help\n", one_line(wrong.what()));
        return status_number(exit_status::usage);
    } catch (const failure& wrong) {
        std::fflush(stdout);
        fmt::print(stderr, "tarvoctl: {}\n", wrong.what());
        return status_number(wrong.status());
    } catch (const std::exception& wrong) {
        std::fflush(stdout);
        fmt::print(stderr, "tarvoctl: {}\n", wrong.what());
        return status_number(exit_status::unreadable);
    }
}

void add_timeout(CLI::App& command, std::chrono::milliseconds& timeout) {
    command
        .add_option_function<double>(
            "--timeout",
            [&timeout](double seconds) {
                const auto most = std::chrono::duration<double>{longest_timeout};
                if (!(seconds >= 0))
                    throw CLI::ValidationError{"--timeout", "give a number of seconds, 0 or more"};
                timeout = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::min(std::chrono::duration<double>{seconds}, most));
            },
            "longest wait for the lock, in seconds; 5 where left out")
        ->type_name("SECONDS");
}

void add_interval(CLI::App& command, std::chrono::milliseconds& interval) {
    command
        .add_option_function<double>(
            "--interval",
            [&interval](double seconds) {
                constexpr double shortest = 0.01;
                constexpr double longest = 86400;
                if (!(seconds >= shortest && seconds <= longest))
                    throw CLI::ValidationError{"--interval", "give 0.01 to 86400 seconds"};
                interval = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::duration<double>{seconds});
            },
            "time between two looks, in seconds; 1 where left out")
        ->type_name("SECONDS");
}

void add_source(CLI::App& command, area_source& source) {
    command.add_option("--area", source.file, "look into this copy of an area, not the live one")
        ->type_name("FILE");
    add_timeout(command, source.timeout);
}

void add_json(CLI::App& command, bool& json) {
    command.add_flag("--json", json, "for programs: one JSON object");
}

uint64_t parse_size(const std::string& text, const std::string& what) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* const first = text.data() + (hexadecimal ? 2 : 0);
    const char* const last = text.data() + text.size();
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(first, last, number, hexadecimal ? 16 : 10);
    const uint64_t factor = factor_of({end, static_cast<std::size_t>(last - end)});
    uint64_t bytes = 0;
    if (error != std::errc{} || factor == 0 || __builtin_mul_overflow(number, factor, &bytes)) {
        throw failure{
            exit_status::usage,
            fmt::format("{} '{}' is no size; write it as 4096, 64K, 2M, 1G or 0x1000", what, text)};
    }
    return bytes;
}

} // namespace tarvoctl
