#include "area/check.hpp"

#include "area/repair.hpp"
#include "commands/commands.hpp"
#include "output/json.hpp"
#include "output/place_text.hpp"
#include "output/text.hpp"

#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct check_command_options {
    area_source source;
    bool cma = false;
    bool json = false;
};

exit_status status_for(const std::vector<finding>& findings) {
    if (has_class(findings, finding_class::broken)) {
        return exit_status::damaged;
    }
    const bool any =
        has_class(findings, finding_class::leaked) || has_class(findings, finding_class::tolerated);
    return any ? exit_status::finding : exit_status::good;
}

const char* verdict_of(const std::vector<finding>& findings) {
    const exit_status status = status_for(findings);
    if (status == exit_status::good) {
        return "sound";
    }
    return status == exit_status::damaged ? "broken" : "usable";
}

/// The command that repairs what was checked.
std::string repair_of(const check_command_options& options) {
    const bool needs_kind = options.cma && !options.source.is_live();
    return command_on(needs_kind ? "repair --cma" : "repair", options.source);
}

void print_as_text(const std::vector<finding>& findings, const shared_area_t& area,
                   const check_command_options& options) {
    for (const auto& each : findings) {
        fmt::print("{:<9}  {}\n", name_of(each.cls), finding_text(each, area));
        if (each.unlisted > 0) {
            fmt::print("           and {} more like it\n", each.unlisted);
        }
    }
    switch (status_for(findings)) {
    case exit_status::good:
        fmt::print("the area is sound\n");
        break;
    case exit_status::damaged:
        fmt::print("the area is broken: {}\n", advice_on(findings, area, repair_of(options)));
        break;
    default:
        fmt::print("the library works on with what was found\n");
    }
}

void print_as_json(const std::vector<finding>& findings, const shared_area_t& area,
                   bool consistent) {
    json document = json_document("check");
    document["consistent"] = consistent;
    document["verdict"] = verdict_of(findings);
    document["findings"] = json_findings(findings, area);
    print_json(document);
}

exit_status check(const check_command_options& options) {
    const auto area = read_area(options.source);
    const auto findings = check_area(*area, options_for(options.source, options.cma));
    if (options.json) {
        print_as_json(findings, *area, area.consistent);
    } else {
        print_as_text(findings, *area, options);
    }
    return status_for(findings);
}

} // namespace

template <>
action set_up<entry_of("check")>(command_words& words) {
    const auto options = std::make_shared<check_command_options>();
    words.optional_word("FILE", options->source.file, "a copy to check in place of the live area");
    words.flag("--cma", options->cma, "the copy is of a CMA region: chunks may overlap");
    words.json(options->json);
    words.live(options->source);
    return [options] { return check(*options); };
}

} // namespace tarvoctl
