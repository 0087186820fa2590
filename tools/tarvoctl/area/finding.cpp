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
        return where.element < 0 ? "the device list" : fmt::format("device {}", where.element);
    case area_list::area:
        break;
    }
    return "the area";
}

std::string text_of_ways_out(const std::vector<finding>& findings) {
    const auto helps = [&findings](way_out out) {
        return std::any_of(findings.begin(), findings.end(), [out](const finding& one) {
            return one.cls == finding_class::broken && one.out == out;
        });
    };
    if (helps(way_out::remove_file)) {
        return "end all programs that use it, then remove its file";
    }
    const std::string free = "free the chunk with 'tarvoctl free' and allocate it again";
    const std::string unregister =
        "unregister the device with 'tarvoctl unregister' and register it again";
    if (helps(way_out::free_chunk) && helps(way_out::unregister_device)) {
        return free + "; " + unregister;
    }
    return helps(way_out::free_chunk) ? free : unregister;
}

} // namespace tarvoctl
