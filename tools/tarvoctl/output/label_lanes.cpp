#include "output/label_lanes.hpp"

#include <algorithm>

namespace tarvoctl {

namespace {

constexpr double distance = 3; // between a line and a label, and half of that between two labels

} // namespace

bool label_lanes::is_free(const span& wanted, double line_x) const {
    const double from = wanted.from - distance / 2;
    const double to = wanted.to + distance / 2;
    const bool is_covered = std::ranges::any_of(_spans, [&](const span& each) {
        const bool meets = each.lane == wanted.lane && each.from < to && from < each.to;
        const bool is_crossed = each.lane < wanted.lane && each.from - distance / 2 < line_x &&
                                line_x < each.to + distance / 2;
        return meets || is_crossed;
    });
    const bool crosses = std::ranges::any_of(_lines, [&](const line& each) {
        return each.lane >= wanted.lane && from < each.x && each.x < to;
    });
    return !is_covered && !crosses;
}

std::optional<label_lanes::place> label_lanes::add(double x, double width) {
    for (const double from : {x + distance, x - distance - width}) {
        for (size_t lane = 0; lane < _most_lanes; ++lane) {
            const span wanted{lane, from, from + width};
            if (wanted.from < _left || wanted.to > _right || !is_free(wanted, x)) {
                continue;
            }
            _spans.push_back(wanted);
            _lines.push_back({x, lane});
            _used_lanes = std::max(_used_lanes, lane + 1);
            return place{lane, from};
        }
    }
    return std::nullopt;
}

} // namespace tarvoctl
