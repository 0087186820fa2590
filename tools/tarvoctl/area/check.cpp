#include "check.hpp"

#include "check_parts.hpp"

#include <algorithm>

namespace tarvoctl {

namespace {

constexpr size_t chunks_offset = offsetof(shared_area_t, chunks);

void check_start_of_file(const shared_area_t& area, report& found) {
    if (area.initialized > 1) {
        found.add(rule::flag_value, {}, "initialized is {}; it must be 0 or 1", area.initialized);
    }
    if (!is_zero(raw(area).subspan(1, chunks_offset - 1))) {
        found.add(rule::padding_not_zero, {},
                  "the bytes between initialized and the chunks are not zero");
    }
}

void check_content(const shared_area_t& area, const check_options& options, report& found) {
    const list_members chunks = check_list(chunk_links(area), found);
    const list_members devices = check_list(device_links(area), found);
    check_chunks(area, chunks, options, found);
    check_devices(area, devices, found);
    check_refs(area, chunks, devices, found);
    if (area.initialized == 0) {
        found.add(rule::built_flag_lost, {},
                  "initialized is 0, yet there are chunks or devices: the next process that "
                  "starts builds the area anew and loses them");
    }
}

} // namespace

std::vector<finding> check_area(const shared_area_t& area, const check_options& options) {
    report found(options.listed_per_rule);
    if (area.initialized != 0 || is_in_use(area)) {
        check_start_of_file(area, found);
        check_content(area, options, found);
    } else if (is_zero(raw(area))) {
        found.add(rule::not_built, {}, "not built yet: the first process that starts does it");
    } else {
        found.add(rule::half_built, {},
                  "the process that built the area did not finish: the next one that starts "
                  "builds it anew");
    }
    return found.take();
}

bool has_class(const std::vector<finding>& findings, finding_class cls) {
    return std::any_of(findings.begin(), findings.end(),
                       [cls](const finding& one) { return one.cls == cls; });
}

bool is_of_another_region(const std::vector<finding>& findings) {
    return std::any_of(findings.begin(), findings.end(), [](const finding& one) {
        return one.rule == rule_name(rule::region_differs, area_list::chunks);
    });
}

} // namespace tarvoctl
