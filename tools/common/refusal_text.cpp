#include "common/refusal_text.hpp"

#include "common/shown.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace {

/// The option that the parser's refusal is about.
std::string option_of(const CLI::ParseError& wrong) {
    std::string_view text = wrong.what();
    text.remove_prefix(std::min(text.find("--"), text.size()));
    return std::string{text.substr(0, text.find_first_of(": "))};
}

std::string missing_text(const CLI::App& command) {
    const auto options = command.get_options(
        [](const CLI::Option* each) { return each->get_required() && each->count() == 0; });
    return options.empty() ? "no command given" : options.front()->get_name() + " is missing";
}

std::string mismatch_text(const CLI::App& command, const std::string& name) {
    const CLI::Option* const option = command.get_option_no_throw(name);
    if (option != nullptr && option->count() > 1) {
        return fmt::format("{} is given {} times; give it once", name, option->count());
    }
    return name + " needs a value";
}

/// Of options that exclude each other.
std::string excluded_text(const CLI::App& command) {
    std::string names;
    for (const CLI::Option* each : command.get_options([](const CLI::Option* option) {
             return option->count() > 0 && !option->get_excludes().empty();
         })) {
        names += (names.empty() ? "" : " and ") + each->get_name();
    }
    return names + " exclude each other; give one of them";
}

} // namespace

std::string unexpected_text(const std::string& word) {
    return word.starts_with('-') ? fmt::format("unknown option '{}'", shown(word))
                                 : fmt::format("unexpected argument '{}'", shown(word));
}

std::string refusal_text(const CLI::App& command, const CLI::ParseError& wrong) {
    switch (static_cast<CLI::ExitCodes>(wrong.get_exit_code())) {
    case CLI::ExitCodes::ExtrasError:
        return unexpected_text(command.remaining().front());
    case CLI::ExitCodes::RequiredError:
        return missing_text(command);
    case CLI::ExitCodes::ArgumentMismatch:
        return mismatch_text(command, option_of(wrong));
    case CLI::ExitCodes::ConversionError: // only flags convert; options check their own values
        return option_of(wrong) + " takes no value";
    case CLI::ExitCodes::ExcludesError:
        return excluded_text(command);
    default:
        return wrong.what();
    }
}
