#include "command_words.hpp"

#include "common/failure.hpp"
#include "common/numbers.hpp"
#include "common/shown.hpp"
#include "host/area_follower.hpp"
#include "host/cross_process_lock.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <limits>
#include <memory>

namespace tarvoctl {

namespace {

using seconds = std::chrono::duration<double>;

/// An option whose value is a number of seconds within bounds, taken by `take`; `rule` names them.
struct seconds_option {
    std::string name;
    std::string about;
    double least;
    double most;
    const char* rule;
    std::function<void(seconds)> take;
};

void add_seconds(CLI::App& parser, const seconds_option& wanted) {
    const auto take = [wanted](const std::string& text) {
        const auto number = number_in<double>(text);
        if (!number || !(*number >= wanted.least && *number <= wanted.most)) {
            throw failure{exit_status::usage,
                          fmt::format("{} '{}': give {}", wanted.name, shown(text), wanted.rule)};
        }
        wanted.take(seconds{*number});
    };
    parser.add_option_function<std::string>(wanted.name, take, wanted.about)->type_name("SECONDS");
}

/// A value that is a text. An empty one would pass for one that is left out, and is mostly that of
/// a variable which is not set.
CLI::Option* add_text_option(CLI::App& parser, const std::string& names, std::string& to,
                             const std::string& about, const char* remedy) {
    return parser.add_option(names, to, about)->check([names, remedy](const std::string& value) {
        if (value.empty()) {
            throw failure{exit_status::usage, fmt::format("{} is empty; {}", names, remedy)};
        }
        return std::string{};
    });
}

constexpr const char* give_one = "give a value";
constexpr const char* give_one_or_none = "give a value, or leave it out";

std::chrono::milliseconds whole_milliseconds(seconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

} // namespace

void command_words::word(const std::string& title, std::string& to, const std::string& about) {
    add_text_option(*_parser, title, to, about, give_one)->required();
}

void command_words::optional_word(const std::string& title, std::string& to,
                                  const std::string& about) {
    add_text_option(*_parser, title, to, about, give_one_or_none);
}

void command_words::flag(const std::string& names, bool& to, const std::string& about) {
    _parser->add_flag(names, to, about);
}

void command_words::option(const std::string& names, const std::string& title, std::string& to,
                           const std::string& about) {
    add_text_option(*_parser, names, to, about, give_one_or_none)->type_name(title);
}

void command_words::choice(const std::string& names, const std::string& title,
                           const std::vector<std::string>& values, std::string& to,
                           const std::string& about) {
    const auto check = [names, values](const std::string& value) {
        if (std::ranges::find(values, value) == values.end()) {
            throw failure{exit_status::usage, fmt::format("{} '{}': give one of {}", names,
                                                          shown(value), fmt::join(values, ", "))};
        }
        return std::string{};
    };
    _parser->add_option(names, to, about)
        ->check(check)
        ->type_name(fmt::format("{}:{{{}}}", title, fmt::join(values, ",")));
}

void command_words::list(const std::string& names, const std::string& title,
                         std::vector<std::string>& to, const std::string& about) {
    _parser->add_option(names, to, about)->delimiter(',')->type_name(title);
}

void command_words::footer(const std::string& text) {
    _parser->footer(text);
}

void command_words::exclude(const std::string& one, const std::string& other) {
    _parser->get_option(one)->excludes(_parser->get_option(other));
}

void command_words::source(area_source& source) {
    option("--area", "FILE", source.file,
           "look into this copy of an area, not the live one; - is standard input");
    live(source);
}

void command_words::live(area_source& source) {
    timeout(source.timeout);
    source.lock = lock_use::offered;
    _parser->add_flag_callback(
        "--no-lock", [&source] { source.lock = lock_use::none; },
        "do not wait: read without the lock, until two readings are alike");
}

void command_words::timeout(std::chrono::milliseconds& timeout) {
    const std::string about =
        fmt::format("longest wait for the lock, in seconds; default {}", seconds{timeout}.count());
    add_seconds(*_parser, {"--timeout", about, 0, std::numeric_limits<double>::infinity(),
                           "a number of seconds, 0 or more", [&timeout](seconds wanted) {
                               timeout =
                                   whole_milliseconds(std::min(wanted, seconds{longest_timeout}));
                           }});
}

void command_words::polling(polling_options& polling) {
    constexpr double shortest = 0.01;
    constexpr double longest = 86400;
    add_seconds(*_parser, {"--interval", "time between two looks, in seconds; default 1", shortest,
                           longest, "0.01 to 86400 seconds", [&polling](seconds wanted) {
                               polling.interval = whole_milliseconds(wanted);
                           }});
    live(polling.source);
}

void command_words::json(bool& json) {
    const auto layout = std::make_shared<std::string>();
    _parser->add_flag("--json", *layout, "for programs; --json=compact: a document a line")
        ->each([&json, layout](const std::string& value) {
            if (value != "true" && value != compact_json) {
                throw failure{
                    exit_status::usage,
                    fmt::format("--json={}: unknown layout; there are --json and --json={}",
                                shown(value), compact_json)};
            }
            json = true;
        });
}

} // namespace tarvoctl
