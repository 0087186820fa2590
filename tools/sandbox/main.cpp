#include "command_line.hpp"
#include "process/report.hpp"
#include "run.hpp"

#include <cstdio>
#include <exception>
#include <string>
#include <variant>
#include <vector>

namespace {

struct doer {
    void operator()(const sandbox::run_options& wanted) const { sandbox::run(wanted); }
    void operator()(const sandbox::join_options& wanted) const { sandbox::join(wanted); }
    void operator()(const sandbox::rule_options& wanted) const { sandbox::change_rules(wanted); }
    void operator()(const sandbox::help_wanted& wanted) const {
        std::fputs(wanted.text.c_str(), stdout);
    }
};

} // namespace

int main(int argc, char** argv) {
    try {
        std::visit(doer{}, sandbox::parse_command_line({argv + 1, argv + argc}));
    } catch (const std::exception& wrong) {
        return sandbox::report(wrong);
    }
    return 0;
}
