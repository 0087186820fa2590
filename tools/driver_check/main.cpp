#include "command_line.hpp"
#include "common/failure.hpp"
#include "region.hpp"
#include "report.hpp"
#include "run.hpp"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace {

using namespace driver_check;

exit_status check(const options& chosen) {
    const subject all{find_region(), chosen.device, chosen.absent_device};
    const auto results = run_checks(all);
    const std::string text = chosen.json ? json_text(all, results) : tap_text(results);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        throw failure{exit_status::unreadable, "standard output cannot be written"};
    }
    const bool broken = std::ranges::any_of(
        results, [](const result& each) { return each.found == verdict::failed; });
    return broken ? exit_status::finding : exit_status::good;
}

int report(const std::exception& wrong, exit_status status) {
    static_cast<void>(std::fprintf(stderr, "tarvo-driver-check: %s\n", wrong.what()));
    return static_cast<int>(status);
}

} // namespace

int main(int argc, char** argv) {
    try {
        const auto chosen = parse_command_line(argc, argv);
        return static_cast<int>(chosen ? check(*chosen) : exit_status::good);
    } catch (const failure& wrong) {
        return report(wrong, wrong.status());
    } catch (const std::exception& wrong) {
        return report(wrong, exit_status::unreadable);
    }
}
