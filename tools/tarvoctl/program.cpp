#include "program.hpp"

#include "common/failure.hpp"
#include "output/json.hpp"
#include "output/standard_output.hpp"
#include "usage_text.hpp"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvoctl {

namespace {

constexpr const char* purpose =
    "Shows and changes the region that libtarvo hands out: what is in it, who put it there, who\n"
    "has it mapped, which device sees it.";

int status_number(exit_status status) {
    return static_cast<int>(status);
}

/// Whether JSON is asked for, and which. It is looked for before the words are parsed, because what
/// is wrong with one of them is reported in JSON, too.
std::optional<json_layout> json_asked_for(const std::vector<std::string>& words) {
    constexpr std::string_view option = "--json";
    for (const auto& word : words) {
        if (word == "--") {
            break;
        }
        if (word == fmt::format("{}={}", option, compact_json)) {
            return json_layout::compact;
        }
        if (word == option || word.starts_with(fmt::format("{}=", option))) {
            return json_layout::readable;
        }
    }
    return std::nullopt;
}

} // namespace

program::program() : _parser{std::make_unique<CLI::App>(purpose, "tarvoctl")} {
    _parser->require_subcommand(1);
    _parser->set_version_flag("--version", "tarvoctl " TARVOCTL_VERSION);
    _parser->footer("'tarvoctl COMMAND --help' lists the options; tarvoctl(1) has the details.");
    [this]<size_t... entries>(std::index_sequence<entries...>) {
        (add(all_commands[entries], set_up<entries>), ...);
    }
    (std::make_index_sequence<std::size(all_commands)>{});
}

program::~program() = default;

void program::add(const command_entry& entry, action (*set_up)(command_words&)) {
    CLI::App* const command =
        _parser->add_subcommand(entry.name, entry.purpose)->group(entry.heading);
    command_words words{*command};
    command->callback([this, run = set_up(words)] { _chosen = run; });
}

exit_status program::parse_and_carry_out(int argc, char** argv) {
    try {
        _parser->parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        if (wrong.get_exit_code() == 0) { // help or version
            _parser->exit(wrong);
            return exit_status::good;
        }
        throw failure{exit_status::usage, usage_text(*_parser, wrong)};
    }
    return _chosen();
}

std::string program::chosen_name() const {
    const auto chosen = _parser->get_subcommands();
    return chosen.empty() ? "" : chosen.front()->get_name();
}

int program::run(int argc, char** argv) {
    const auto layout = json_asked_for({argv, argv + argc});
    if (layout) {
        lay_json_out(*layout);
    }
    const auto report = [&](const std::exception& wrong, exit_status status) {
        // Where this cannot be written, the status alone reports it.
        if (layout) {
            const json document = json_error(chosen_name(), status, wrong.what());
            static_cast<void>(std::fputs(json_text(document).c_str(), stdout));
        }
        std::fflush(stdout);
        static_cast<void>(std::fputs(fmt::format("tarvoctl: {}\n", wrong.what()).c_str(), stderr));
        return status_number(status);
    };
    try {
        return status_number(with_output([&] { return parse_and_carry_out(argc, argv); }));
    } catch (const failure& wrong) {
        return report(wrong, wrong.status());
    } catch (const std::exception& wrong) {
        return report(wrong, exit_status::unreadable);
    }
}

} // namespace tarvoctl
