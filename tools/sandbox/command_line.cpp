#include "command_line.hpp"

#include "common/refusal_text.hpp"
#include "common/trouble.hpp"
#include "help.hpp"
#include "run.hpp"
#include "worlds.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

namespace sandbox {

namespace {

/// The one that is meant where the first word names none.
constexpr const char* default_command = "run";

/// A value that is a path. An empty one is mostly that of a variable which is not set.
CLI::Option* add_path(CLI::App& command, const std::string& name, const char* title,
                      std::string& to, const char* about) {
    const auto refuse_empty = [name](const std::string& value) {
        if (value.empty()) {
            throw trouble{name + " is empty; give a path, or leave it out"};
        }
        return std::string{};
    };
    return command.add_option(name, to, about)->type_name(title)->check(refuse_empty);
}

/// An option that may be repeated, with one value each time.
void add_repeatable(CLI::App& command, const std::string& name, const char* title,
                    std::vector<std::string>& to, const char* about) {
    command.add_option(name, to, about)
        ->type_name(title)
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);
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

/// The tool's words, which the parser reads, and those after the first "--", which it never sees.
class command_line {
  public:
    explicit command_line(std::vector<std::string> words) {
        const auto dashes = std::find(words.begin(), words.end(), "--");
        if (dashes != words.end()) {
            _after_dashes.assign(dashes + 1, words.end());
        }
        _own.assign(words.begin(), dashes);
        add_run();
        add_join();
        add_rule();
        _parser.require_subcommand(1);
        if (_own.empty() || !is_command(_own.front())) {
            _own.insert(_own.begin(), default_command);
        }
    }

    std::function<void()> parse() {
        try {
            // CLI11 takes them from the back.
            _parser.parse(std::vector<std::string>{_own.rbegin(), _own.rend()});
        } catch (const CLI::ParseError& wrong) {
            if (wrong.get_exit_code() != 0) {
                throw trouble{refusal(wrong)};
            }
            _parser.exit(wrong); // prints help or version
            return [] {};
        }
        if (_join->parsed()) {
            return joining();
        }
        return _rule->parsed() ? changing_rules() : running();
    }

  private:
    bool is_command(const std::string& word) const {
        const auto all = _parser.get_subcommands({});
        return std::any_of(all.begin(), all.end(),
                           [&](const CLI::App* each) { return each->get_name() == word; });
    }

    CLI::App* add_command(const std::string& name, const help_page& page) {
        CLI::App* const added = _parser.add_subcommand(name);
        set_help(*added, page);
        return added;
    }

    void add_run() {
        _run = add_command(default_command, run_page);
        _run->option_defaults()->group("What the command finds");
        _run->add_option("--world", _world_name, world_list())->type_name("W");
        _run->add_option("--region", _region_text,
                         "another region; hexadecimal, END inclusive, NAME \"tarvo\" if left out")
            ->type_name("START-END[:NAME]");
        _run->add_option(
                "--region-line", _region_line,
                "the first line of /proc/tarvo, right or wrong; \\t and \\n are understood")
            ->type_name("TEXT");
        add_repeatable(*_run, "--without", "ITEM", _without,
                       "leave out proc, sysfs, mem, shmem or lockdir; may be repeated");
        add_path(*_run, "--state", "DIR", _state_dir,
                 "keep the state in DIR/tmp, DIR/shmem, DIR/subsys and DIR/mem");
        _run->option_defaults()->group("What the driver does");
        add_repeatable(*_run, "--rule", "RULE", _rules,
                       "a scripted refusal or fault; may be repeated");
        add_path(*_run, "--log", "FILE", _log_path,
                 "append every open, write and close of the driver's files as a JSON line");
        add_path(*_run, "--control", "PATH", _control_path, "a Unix socket for join and rule");
    }

    void add_control(CLI::App& command) {
        add_path(command, "--control", "PATH", _control_path, "the socket of the sandbox")
            ->required();
    }

    void add_join() {
        _join = add_command("join", join_page);
        add_control(*_join);
    }

    void add_rule() {
        _rule = add_command("rule", rule_page);
        add_control(*_rule);
        _rule->add_flag("--clear", _clear,
                        "drop the rules in force first; without it the new ones come after them");
        _rule->add_flag("--list", _list,
                        "print the rules then in force, one a line: how often it has matched,\n"
                        "a tab, the rule");
        _rule->add_option("RULE", _rules, "rules to add")->type_name("");
    }

    std::string refusal(const CLI::ParseError& wrong) const {
        const CLI::App& command = *_parser.get_subcommands().front();
        return fmt::format("{}; see 'tarvo-sandbox {}--help'", refusal_text(command, wrong),
                           &command == _run ? "" : command.get_name() + " ");
    }

    std::vector<std::string> command() const {
        if (_after_dashes.empty()) {
            throw trouble{
                "no command; write it after --, as in 'tarvo-sandbox --world low -- ./client'"};
        }
        return _after_dashes;
    }

    bool given(const std::string& option) const { return _run->count(option) > 0; }

    /// In simulation the library has a region of its own and looks at no other. A region beside
    /// --world simulation is allowed: a test may show just that.
    void check_region_is_used() const {
        const bool has_region = given("--region") || given("--region-line");
        if (has_region && !given("--world")) {
            throw trouble{"a region is of no use in simulation; name a world for it, as in "
                          "'tarvo-sandbox --world high --region 100000000-13fffffff -- ./client'"};
        }
    }

    world chosen() const {
        world made = named_world(_world_name);
        if (given("--region")) {
            set_region(made, parse_region(_region_text));
        }
        if (given("--region-line")) {
            set_region_line(made, _region_line);
        }
        check_region_is_used();
        for (const auto& name : _without) {
            made.without.insert(parse_item(name));
        }
        made.state_dir = absolute(_state_dir);
        return made;
    }

    std::function<void()> running() const {
        return [wanted = run_options{chosen(), parse_rules(_rules), _log_path, _control_path,
                                     command()}] { run(wanted); };
    }

    std::function<void()> joining() const {
        return [wanted = join_options{_control_path, command()}] { join(wanted); };
    }

    std::function<void()> changing_rules() const {
        rule_options wanted{_control_path, _clear, _list, _rules};
        wanted.rules.insert(wanted.rules.end(), _after_dashes.begin(), _after_dashes.end());
        // A wrong rule is reported also where no sandbox runs.
        parse_rules(wanted.rules);
        if (wanted.rules.empty() && !_clear && !_list) {
            throw trouble{"rule: nothing to do; give a RULE, --clear or --list"};
        }
        return [wanted] { change_rules(wanted); };
    }

    std::vector<std::string> _own;
    std::vector<std::string> _after_dashes;

    std::string _world_name = "simulation";
    std::string _region_text;
    std::string _region_line;
    std::string _state_dir;
    std::string _log_path;
    std::string _control_path;
    std::vector<std::string> _without;
    std::vector<std::string> _rules;
    bool _clear = false;
    bool _list = false;

    CLI::App _parser{"", "tarvo-sandbox"};
    CLI::App* _run = nullptr;
    CLI::App* _join = nullptr;
    CLI::App* _rule = nullptr;
};

} // namespace

std::function<void()> parse_command_line(const std::vector<std::string>& arguments) {
    return command_line{arguments}.parse();
}

} // namespace sandbox
