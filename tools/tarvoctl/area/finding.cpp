#include "finding.hpp"

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

std::string text_of(const place& where) {
    switch (where.list) {
    case area_list::chunks:
        return where.element < 0 ? "the chunk list" : fmt::format("chunk {}", where.element);
    case area_list::refs:
        return where.ref < 0
                   ? fmt::format("chunk {}, its device list", where.element)
                   : fmt::format("chunk {}, device reference {}", where.element, where.ref);
    case area_list::devices:
        return where.element < 0 ? "the device list" : fmt::format("device {}", where.element);
    case area_list::area:
        break;
    }
    return "the area";
}

} // namespace tarvoctl
