#include "command_words.hpp"

#include "failure.hpp"
#include "host/cross_process_lock.hpp"
#include "shown.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <memory>

namespace tarvoctl {

namespace {

using seconds = std::chrono::duration<double>;

/// An option whose value is a number of seconds, looked at by `take`.
void add_seconds(CLI::App& parser, const std::string& name, const std::string& about,
                 const std::function<void(double)>& take) {
    parser.add_option_function<double>(name, take, about)->type_name("SECONDS");
}

/// A value that is a text. An empty one would pass for one that is left out, and is mostly that of a
/// variable which is not set.
CLI::Option* add_text(CLI::App& parser, const std::string& names, std::string& to,
                      const std::string& about, const char* way_out) {
    return parser.add_option(names, to, about)->check([names, way_out](const std::string& value) {
        if (value.empty())
            throw failure{exit_status::usage, fmt::format("{} is empty; {}", names, way_out)};
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
    add_text(*parser_, title, to, about, give_one)->required();
}

void command_words::optional_word(const std::string& title, std::string& to,
                                  const std::string& about) {
    add_text(*parser_, title, to, about, give_one_or_none);
}

void command_words::flag(const std::string& names, bool& to, const std::string& about) {
    parser_->add_flag(names, to, about);
}

void command_words::option(const std::string& names, const std::string& title, std::string& to,
                           const std::string& about) {
    add_text(*parser_, names, to, about, give_one_or_none)->type_name(title);
}

void command_words::choice(const std::string& names, const std::string& title,
                           const std::vector<std::string>& values, std::string& to,
                           const std::string& about) {
    parser_->add_option(names, to, about)->check(CLI::IsMember(values))->type_name(title);
}

void command_words::list(const std::string& names, const std::string& title,
                         std::vector<std::string>& to, const std::string& about) {
    parser_->add_option(names, to, about)->delimiter(',')->type_name(title);
}

void command_words::exclude(const std::string& one, const std::string& other) {
    parser_->get_option(one)->excludes(parser_->get_option(other));
}

void command_words::source(area_source& source) {
    option("--area", "FILE", source.file,
           "look into this copy of an area, not the live one; - is standard input");
    live(source);
}

void command_words::live(area_source& source) {
    timeout(source.timeout);
    source.lock = lock_use::offered;
    parser_->add_flag_callback(
        "--no-lock", [&source] { source.lock = lock_use::none; },
        "do not wait: read without the lock, until two readings are alike");
}

void command_words::timeout(std::chrono::milliseconds& timeout) {
    add_seconds(*parser_, "--timeout", "longest wait for the lock, in seconds; 5 where left out",
                [&timeout](double wanted) {
                    if (!(wanted >= 0)) {
                        throw CLI::ValidationError{fmt::format(
                            "--timeout {}: give a number of seconds, 0 or more", wanted)};
                    }
                    timeout =
                        whole_milliseconds(std::min(seconds{wanted}, seconds{longest_timeout}));
                });
}

void command_words::interval(std::chrono::milliseconds& interval) {
    add_seconds(*parser_, "--interval", "time between two looks, in seconds; 1 where left out",
                [&interval](double wanted) {
                    constexpr double shortest = 0.01;
                    constexpr double longest = 86400;
                    if (!(wanted >= shortest && wanted <= longest)) {
                        throw CLI::ValidationError{
                            fmt::format("--interval {}: give 0.01 to 86400 seconds", wanted)};
                    }
                    interval = whole_milliseconds(seconds{wanted});
                });
}

void command_words::json(bool& json) {
    const auto layout = std::make_shared<std::string>();
    parser_->add_flag("--json", *layout, "for programs; --json=compact: a document a line")
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
