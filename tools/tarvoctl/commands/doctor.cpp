#include "commands/commands.hpp"
#include "common/quantities.hpp"
#include "doctor/diagnosis.hpp"
#include "output/json.hpp"
#include "output/screen.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct verdict_look {
    const char* word;
    const char* colour; ///< what a terminal understands
};

verdict_look look_of(verdict how) {
    switch (how) {
    case verdict::ok:
        return {"ok", "\033[32m"};
    case verdict::note:
        return {"note", "\033[36m"};
    case verdict::warning:
        return {"warning", "\033[33m"};
    default:
        return {"ERROR", "\033[1;31m"};
    }
}

health_report examine() {
    const site here = find_site();
    health_report report;
    diagnose_selection(here, report);
    diagnose_drivers(here, report);
    diagnose_files(here, report);
    diagnose_protection(report);
    diagnose_area(here, report);
    diagnose_users(here, report);
    return report;
}

exit_status status_of(const health_report& report) {
    if (report.is_damaged()) {
        return exit_status::damaged;
    }
    if (!report.is_readable()) {
        return exit_status::unreadable;
    }
    const bool good = report.count(verdict::error) + report.count(verdict::warning) == 0;
    return good ? exit_status::good : exit_status::finding;
}

void print_summary(const health_report& report) {
    if (status_of(report) == exit_status::good) {
        fmt::print("\nNothing is wrong\n");
    } else {
        fmt::print("\n{}, {}\n", counted(report.count(verdict::error), "error"),
                   counted(report.count(verdict::warning), "warning"));
    }
}

void print_for_people(const health_report& report) {
    const bool coloured = standard_screen().colour;
    for (const auto& [how, subject, text, fix] : report.all()) {
        const auto [word, colour] = look_of(how);
        fmt::print("{}{:8}{} {}: {}\n", coloured ? colour : "", word, coloured ? "\033[0m" : "",
                   subject, text);
        if (!fix.empty()) {
            fmt::print("{:8}   fix: {}\n", "", fix);
        }
    }
    print_summary(report);
}

json json_of(const diagnosis& each) {
    const std::string word = each.how == verdict::error ? "error" : look_of(each.how).word;
    return {{"verdict", word},
            {"subject", each.subject},
            {"text", each.text},
            {"fix", each.fix.empty() ? json{} : json(each.fix)}};
}

void print_as_json(const health_report& report) {
    json document = json_document("doctor");
    document["checks"] = json_list(report.all(), json_of);
    document["errors"] = report.count(verdict::error);
    document["warnings"] = report.count(verdict::warning);
    print_json(document);
}

exit_status doctor(bool as_json) {
    const health_report report = examine();
    if (as_json) {
        print_as_json(report);
    } else {
        print_for_people(report);
    }
    return status_of(report);
}

} // namespace

template <>
action set_up<entry_of("doctor")>(command_words& words) {
    const auto as_json = std::make_shared<bool>(false);
    words.json(*as_json);
    return [as_json] { return doctor(*as_json); };
}

} // namespace tarvoctl
