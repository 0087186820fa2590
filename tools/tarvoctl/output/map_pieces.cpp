#include "output/map_pieces.hpp"

#include "common/quantities.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

constexpr double narrowest = 2; // that is drawn by itself, if its neighbours are as narrow

/// Of a text that is longer, the beginning.
std::string shortened(const std::string& text) {
    constexpr size_t most_letters = 28;
    if (width_of(text) <= most_letters) {
        return text;
    }
    return cut_to_width(text, most_letters) + "...";
}

std::string name_of(const piece& what) {
    switch (what.state) {
    case piece_state::free:
        return "free";
    case piece_state::unknown:
        return "unknown";
    case piece_state::overlapping:
        return shown_name(what.owner->name) + " overlaps " + shown_name(what.other->name);
    case piece_state::used:
        break;
    }
    return shown_name(what.owner->name);
}

/// Adds a piece to those that are drawn as one.
void join(drawn_piece& many, const piece& part, double end_x) {
    many.part.bytes = part.pa + part.bytes - many.part.pa;
    many.width = end_x - many.x;
    many.chunks += part.owner == nullptr ? 0 : 1;
    ++many.pieces;
}

} // namespace

map_pieces::map_pieces(const picture& records) : _pieces{pieces_of(records)} {
    for (const piece& each : _pieces) {
        if (each.owner != nullptr) {
            _looks.try_emplace(each.owner, _looks.size() % 2 == 0 ? map_look::even : map_look::odd);
        }
    }
}

std::vector<drawn_piece> map_pieces::drawn_on(const map_row& row, double pixels_per_byte) const {
    std::vector<drawn_piece> found;
    for (const piece& each : _pieces) {
        const piece part = clipped(each, row);
        if (part.bytes == 0) {
            continue;
        }
        const double x = static_cast<double>(part.pa - row.pa) * pixels_per_byte;
        const double width = static_cast<double>(part.bytes) * pixels_per_byte;
        const bool joins = width < narrowest && !found.empty() &&
                           (found.back().pieces > 1 || found.back().width < narrowest);
        if (joins) {
            join(found.back(), part, x + width);
        } else {
            found.push_back({part, x, width, 1, part.owner == nullptr ? 0U : 1U});
        }
    }
    return found;
}

const piece& map_pieces::whole_of(const piece& part) const {
    const auto next = std::ranges::upper_bound(_pieces, part.pa, {}, &piece::pa);
    return *std::prev(next);
}

map_look map_pieces::look_of(const drawn_piece& what) const {
    if (what.pieces > 1) {
        return map_look::many;
    }
    switch (what.part.state) {
    case piece_state::free:
        return map_look::free;
    case piece_state::overlapping:
        return map_look::overlapping;
    case piece_state::unknown:
        return map_look::unknown;
    case piece_state::used:
        break;
    }
    return _looks.at(what.part.owner);
}

std::vector<std::string> map_pieces::lines_of(const drawn_piece& what) const {
    if (what.pieces > 1) {
        return {counted(what.chunks, "chunk"), "in " + size_text(what.part.bytes),
                pa_text(what.part.pa)};
    }
    const piece& whole = whole_of(what.part);
    const std::string name = shortened(name_of(whole));
    if (whole.pa != what.part.pa) {
        return {name, "continued", size_text(what.part.bytes) + " here"};
    }
    return {name, size_text(whole.bytes), pa_text(whole.pa)};
}

std::string map_pieces::title_of(const drawn_piece& what) const {
    const piece& whole = what.pieces > 1 ? what.part : whole_of(what.part);
    return fmt::format("{}: physical {}, {}",
                       what.pieces > 1 ? counted(what.chunks, "chunk") : name_of(whole),
                       pa_range(whole.pa, whole.pa + whole.bytes), size_with_bytes(whole.bytes));
}

} // namespace tarvoctl
