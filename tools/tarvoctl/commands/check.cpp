#include "area/check.hpp"

#include "commands/commands.hpp"
#include "output/json.hpp"
#include "output/table.hpp"
#include "output/text.hpp"
#include "program.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct check_command_options {
    area_source source;
    bool cma = false;
    bool json = false;
};

/// What the machine says is compared with the live area only: a copy may come from another one.
check_options options_for(const check_command_options& options) {
    check_options made = options_here(find_site());
    if (!options.source.is_live()) {
        made.cma = false;
        made.region.reset();
    }
    made.cma = made.cma || options.cma;
    return made;
}

exit_status status_for(const std::vector<finding>& findings) {
    if (has_class(findings, finding_class::broken))
        return exit_status::damaged;
    const bool any =
        has_class(findings, finding_class::leaked) || has_class(findings, finding_class::tolerated);
    return any ? exit_status::finding : exit_status::good;
}

const char* verdict_of(const std::vector<finding>& findings) {
    const exit_status status = status_for(findings);
    if (status == exit_status::good)
        return "sound";
    return status == exit_status::damaged ? "broken" : "usable";
}

std::string text_of(const finding& each) {
    std::string text = fmt::format("{:<9}  {}: {} [{}]", name_of(each.cls), text_of(each.where),
                                   shown(each.text), each.rule);
    if (each.unlisted > 0)
        text += fmt::format("\n           and {} more like it", each.unlisted);
    return text;
}

void print_as_text(const std::vector<finding>& findings) {
    for (const auto& each : findings)
        fmt::print("{}\n", text_of(each));
    switch (status_for(findings)) {
    case exit_status::good:
        fmt::print("the area is sound\n");
        break;
    case exit_status::damaged:
        fmt::print("the area is broken: {}\n",
                   is_of_another_region(findings)
                       ? "end all programs that use it, then remove its file"
                       : "'tarvoctl repair' shows what can be done");
        break;
    default:
        fmt::print("the library works on with what was found\n");
    }
}

void print_as_json(const std::vector<finding>& findings) {
    json listed = json::array();
    for (const auto& each : findings) {
        listed.push_back({{"class", name_of(each.cls)},
                          {"rule", each.rule},
                          {"where", text_of(each.where)},
                          {"element", each.where.element},
                          {"reference", each.where.ref},
                          {"text", each.text},
                          {"unlisted", each.unlisted}});
    }
    json document = json_document("check");
    document["verdict"] = verdict_of(findings);
    document["findings"] = std::move(listed);
    print_json(document);
}

exit_status check(const check_command_options& options) {
    const auto area = read_area(options.source);
    const auto findings = check_area(*area, options_for(options));
    if (options.json) {
        print_as_json(findings);
    } else {
        print_as_text(findings);
    }
    return status_for(findings);
}

} // namespace

void add_check(program& to) {
    const auto options = std::make_shared<check_command_options>();
    command_words command =
        to.add("check", "every rule of the area, live or of a copy", mending, options, check);
    command.optional_word("FILE", options->source.file,
                          "a copy to check in place of the live area");
    command.flag("--cma", options->cma, "the copy is of a CMA region: chunks may overlap");
    command.json(options->json);
    command.timeout(options->source.timeout);
}

} // namespace tarvoctl
