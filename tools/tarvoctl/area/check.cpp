#include "check.hpp"

#include "check_parts.hpp"

#include <algorithm>

namespace tarvoctl {

namespace {

constexpr size_t chunks_offset = offsetof(shared_area_t, chunks);

void check_start_of_file(const shared_area_t& area, report& found) {
    if (area.initialized > 1) {
        found.add(rules::flag_value, {}, "initialized", area.initialized);
    }
    if (!is_zero(raw(area).subspan(1, chunks_offset - 1))) {
        found.add(rules::padding_not_zero, {}, "the bytes between initialized and the chunks are");
    }
}

void check_content(const shared_area_t& area, const check_options& options, report& found) {
    const list_members chunks = check_list(chunk_links(area), found);
    const list_members devices = check_list(device_links(area), found);
    check_chunks(area, chunks, options, found);
    check_devices(area, devices, found);
    check_refs(area, chunks, devices, found);
    if (area.initialized == 0) {
        found.add(rules::built_flag_lost, {});
    }
}

} // namespace

std::vector<finding> check_area(const shared_area_t& area, const check_options& options) {
    report found(options.listed_per_rule);
    if (area.initialized != 0 || is_in_use(area)) {
        check_start_of_file(area, found);
        check_content(area, options, found);
    } else if (is_zero(raw(area))) {
        found.add(rules::not_built, {});
    } else {
        found.add(rules::half_built, {});
    }
    return found.take();
}

bool has_class(const std::vector<finding>& findings, finding_class cls) {
    return std::ranges::find(findings, cls, &finding::cls) != findings.end();
}

bool is_of_another_region(const std::vector<finding>& findings) {
    const std::string differs = rule_name(rules::region_differs, area_list::chunks);
    return std::ranges::find(findings, differs, &finding::rule) != findings.end();
}

} // namespace tarvoctl
