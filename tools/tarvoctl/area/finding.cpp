#include "finding.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace tarvoctl {

std::string_view name_of(finding_class cls) {
    switch (cls) {
    case finding_class::note:
        return "note";
    case finding_class::tolerated:
        return "tolerated";
    case finding_class::leaked:
        return "leaked";
    case finding_class::broken:
        break;
    }
    return "broken";
}

std::string text_of(const place& where, const std::string& label) {
    switch (where.list) {
    case area_list::chunks:
        return where.element < 0 ? "the chunk list"
                                 : fmt::format("chunk {}{}", where.element, label);
    case area_list::refs:
        return where.ref < 0 ? fmt::format("chunk {}{}, its device list", where.element, label)
                             : fmt::format("chunk {}{}, device reference {}", where.element, label,
                                           where.ref);
    case area_list::devices:
        return where.element < 0 ? "the device list"
                                 : fmt::format("device {}{}", where.element, label);
    case area_list::area:
        break;
    }
    return "the area";
}

namespace {

std::string best_remedy(const std::vector<finding>& findings) {
    const auto helps = [&findings](remedy out) {
        return std::ranges::any_of(findings, [out](const finding& one) {
            return one.cls == finding_class::broken && one.out == out;
        });
    };
    if (helps(remedy::remove_file)) {
        return "end all programs that use it, then remove its file";
    }
    const std::string free = "free the chunk with 'tarvoctl free' and allocate it again";
    const std::string unregister =
        "unregister the device with 'tarvoctl unregister' and register it again";
    if (helps(remedy::free_chunk) && helps(remedy::unregister_device)) {
        return free + "; " + unregister;
    }
    return helps(remedy::free_chunk) ? free : unregister;
}

bool is_any_chunk_mapped(const shared_area_t& area) {
    const auto& chunks = area.chunks._arr;
    return std::any_of(std::begin(chunks), std::end(chunks), is_mapped);
}

} // namespace

std::string removal_text(const std::string& file) {
    return fmt::format("end all programs that use it, then rm {}", file);
}

std::string after_devices(const std::string& step) {
    return "stop or reset the devices first (or restart the machine), because they may still see "
           "the memory; then " +
           step;
}

/// Only what the records say is unmapped. Where the records are broken, devices may see more than
/// that, and of any chunk: an overlap does not show which of the two chunks is wrong.
std::string after_devices_if_mapped(const std::string& step, const shared_area_t& area) {
    return is_any_chunk_mapped(area) ? after_devices(step) : step;
}

std::string remedy_text(const std::vector<finding>& findings, const shared_area_t& area) {
    return after_devices_if_mapped(best_remedy(findings), area);
}

} // namespace tarvoctl
