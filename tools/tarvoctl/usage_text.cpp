#include "usage_text.hpp"

#include "common/refusal_text.hpp"
#include "common/shown.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace tarvoctl {

std::string usage_text(const CLI::App& parser, const CLI::ParseError& wrong) {
    const auto chosen = parser.get_subcommands();
    const auto unknown = parser.remaining();
    if (!unknown.empty() && (unknown.front().starts_with('-') || !chosen.empty())) {
        return unexpected_text(unknown.front()) + " before the command; see 'tarvoctl --help'";
    }
    if (!unknown.empty()) {
        return fmt::format("unknown command '{}'; 'tarvoctl --help' lists the commands",
                           shown(unknown.front()));
    }
    if (chosen.empty()) {
        return refusal_text(parser, wrong) + "; 'tarvoctl --help' lists the commands";
    }
    return fmt::format("{}; see 'tarvoctl {} --help'", refusal_text(*chosen.front(), wrong),
                       chosen.front()->get_name());
}

} // namespace tarvoctl
