#include "command_line.hpp"

#include "common/trouble.hpp"
#include "help_text.hpp"
#include "worlds.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <optional>

namespace sandbox {

namespace {

constexpr const char* version_text = "tarvo-sandbox " TARVO_SANDBOX_VERSION "\n";

/// The tool's own words and, behind the first "--", the command's.
struct words {
    std::vector<std::string> own;
    std::optional<std::vector<std::string>> command;
};

words split_words(std::vector<std::string> all) {
    words made;
    const auto dashes = std::find(all.begin(), all.end(), "--");
    if (dashes != all.end()) {
        made.command.emplace(dashes + 1, all.end());
    }
    all.erase(dashes, all.end());
    made.own = std::move(all);
    return made;
}

std::string take_subcommand(words& given) {
    if (given.own.empty() ||
        (given.own[0] != "run" && given.own[0] != "join" && given.own[0] != "rule")) {
        return "run";
    }
    std::string name = given.own[0];
    given.own.erase(given.own.begin());
    return name;
}

/// Help and version go their own way, so that they work beside any other word.
std::optional<help_wanted> asked_for_help(const words& given, const std::string& help) {
    for (const auto& word : given.own) {
        if (word == "--help" || word == "-h") {
            return help_wanted{help};
        }
        if (word == "--version") {
            return help_wanted{version_text};
        }
    }
    return std::nullopt;
}

void parse(CLI::App& app, const words& given) {
    app.set_help_flag();
    try {
        // CLI11 takes them from the back.
        app.parse(std::vector<std::string>{given.own.rbegin(), given.own.rend()});
    } catch (const CLI::ParseError& wrong) {
        std::string text = wrong.what();
        std::replace(text.begin(), text.end(), '\n', ' ');
        throw trouble{text + "; see tarvo-sandbox --help"};
    }
}

std::vector<std::string> take_command(const words& given) {
    if (!given.command || given.command->empty()) {
        throw trouble{
            "no command: write it behind --, as in 'tarvo-sandbox --world low -- ./client'"};
    }
    return *given.command;
}

CLI::Option* add_repeatable(CLI::App& app, const std::string& name,
                            std::vector<std::string>& values) {
    return app.add_option(name, values)->expected(1)->take_all()->allow_extra_args(false);
}

std::string absolute(const std::string& path) {
    return path.empty() ? path : std::filesystem::absolute(path).string();
}

std::vector<rule> parse_rules(const std::vector<std::string>& texts) {
    std::vector<rule> parsed;
    parsed.reserve(texts.size());
    for (const auto& text : texts) {
        parsed.push_back(parse_rule(text));
    }
    return parsed;
}

/// In simulation the library has a region of its own and looks at no other. Who names the
/// simulation along with a region may want to see just that.
void check_region_is_used(bool has_region, bool names_world) {
    if (has_region && !names_world) {
        throw trouble{"a region is of no use in simulation; name a world for it, as in "
                      "'tarvo-sandbox --world high --region 100000000-13fffffff -- ./client'"};
    }
}

options parse_run(const words& given) {
    std::string world_name = "simulation";
    std::string region_text;
    std::string region_line;
    std::string state_dir;
    std::vector<std::string> without;
    std::vector<std::string> rules;
    run_options made;

    CLI::App app;
    const auto* const world_option = app.add_option("--world", world_name);
    const auto* const region_option = app.add_option("--region", region_text);
    const auto* const line_option = app.add_option("--region-line", region_line);
    app.add_option("--state", state_dir);
    app.add_option("--log", made.log_path);
    app.add_option("--control", made.control_path);
    add_repeatable(app, "--without", without);
    add_repeatable(app, "--rule", rules);
    parse(app, given);

    made.played = named_world(world_name);
    if (region_option->count() > 0) {
        set_region(made.played, parse_region(region_text));
    }
    if (line_option->count() > 0) {
        set_region_line(made.played, region_line);
    }
    check_region_is_used(region_option->count() + line_option->count() > 0,
                         world_option->count() > 0);
    for (const auto& name : without) {
        made.played.without.insert(parse_item(name));
    }
    made.played.state_dir = absolute(state_dir);
    made.rules = parse_rules(rules);
    made.command = take_command(given);
    return made;
}

options parse_join(const words& given) {
    join_options made;
    CLI::App app;
    app.add_option("--control", made.control_path)->required();
    parse(app, given);
    made.command = take_command(given);
    return made;
}

options parse_rule_change(const words& given) {
    rule_options made;
    CLI::App app;
    app.add_option("--control", made.control_path)->required();
    app.add_flag("--clear", made.clear);
    app.add_flag("--list", made.list);
    app.add_option("rule", made.rules);
    parse(app, given);
    if (given.command) {
        made.rules.insert(made.rules.end(), given.command->begin(), given.command->end());
    }
    // A wrong rule is told also where no sandbox runs.
    parse_rules(made.rules);
    if (made.rules.empty() && !made.clear && !made.list) {
        throw trouble{"rule: nothing to do; give a RULE, --clear or --list"};
    }
    return made;
}

} // namespace

options parse_command_line(const std::vector<std::string>& arguments) {
    words given = split_words(arguments);
    const std::string subcommand = take_subcommand(given);
    const bool joins = subcommand == "join";
    const bool changes_rules = subcommand == "rule";
    const auto help = joins ? join_help() : changes_rules ? rule_help() : run_help();
    if (auto wanted = asked_for_help(given, help)) {
        return std::move(*wanted);
    }
    if (joins) {
        return parse_join(given);
    }
    return changes_rules ? parse_rule_change(given) : parse_run(given);
}

} // namespace sandbox
