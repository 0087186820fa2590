#include "output/map_layout.hpp"

#include "common/quantities.hpp"
#include "output/label_lanes.hpp"
#include "output/map_marks.hpp"
#include "output/map_pieces.hpp"
#include "output/map_rows.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <set>

namespace tarvoctl {

namespace {

constexpr double page_width = 1600;
constexpr double margin = 16;
constexpr double row_left = 124;   // right of the row's address
constexpr double label_room = 320; // right of the row: labels of its last pieces
constexpr double row_width = page_width - row_left - label_room - margin;
constexpr double row_height = 66;
constexpr double line_height = 15;
constexpr double padding = 4;

/// What is written in or beside a box.
struct label {
    const chunk_record* owner; ///< of what is described; null: none
    bool is_continued;         ///< from the row above
    std::vector<std::string> lines;
    std::vector<map_mark> marks; ///< without their places

    double marks_width() const {
        return static_cast<double>(marks.size()) * (map_mark_size + padding / 2);
    }
    double width_within() const {
        double widest = marks_width();
        for (const std::string& line : lines) {
            widest = std::max(widest, width_on_page(line));
        }
        return widest + 2 * padding;
    }
    std::string text_beside() const {
        return fmt::format("{}, {}{} {}", lines[0], lines[1], is_continued ? "," : " at", lines[2]);
    }
    double width_beside() const { return width_on_page(text_beside()) + padding + marks_width(); }
};

/// A label for which there is no room within its box.
struct label_beside {
    label what;
    double x; ///< of the line that leads to it
};

class page_layout {
  public:
    page_layout(const picture& records, const mapped_memory* memory, process_table& processes)
        : _records{records}, _marks{records, memory, processes}, _pieces{records} {
        constexpr uint64_t least_row_bytes = 0x40000;
        constexpr size_t most_rows = 16;
        _map = rows_of(_pieces.all(), least_row_bytes, most_rows);
        _page.width = page_width;
    }

    map_page page() {
        add_heading();
        choose_largest();
        for (const map_row& row : _map.rows) {
            add_row(row);
        }
        add_unnamed();
        add_looks();
        add_mark_texts();
        for (const std::string& line : _marks.remarks()) {
            add_line_of_text(line);
        }
        _page.height = _y + margin;
        return std::move(_page);
    }

  private:
    void add_text(double x, double y, std::string text, bool is_heading = false) {
        _page.texts.push_back({x, y, std::move(text), is_heading});
    }

    void add_line_of_text(std::string text, bool is_heading = false) {
        _y += line_height + padding / 2;
        add_text(margin, _y, std::move(text), is_heading);
    }

    void add_heading() {
        const dma_window& region = _records.region;
        _y = padding;
        add_line_of_text(fmt::format("{} at physical {}, DMA {}",
                                     size_text(region.end_pa - region.first_pa),
                                     pa_range(region.first_pa, region.end_pa),
                                     dma_range(region, region.first_pa, region.end_pa)),
                         true);
        const auto gaps = gaps_of(_records);
        const std::string free = _records.all_chunks ? size_text(free_space_of(gaps).total_bytes) +
                                                           " free in " + counted(gaps.size(), "gap")
                                                     : "how much is free is unknown";
        add_line_of_text(fmt::format("{}, {}; a row is {}, rows that are wholly free are folded",
                                     counted(_records.chunks.size(), "chunk"), free,
                                     size_text(_map.row_bytes)));
        _y += line_height;
    }

    /// Those get a label beside them where there is no room within.
    void choose_largest() {
        constexpr size_t most_of_a_kind = 60;
        std::vector<piece> order = _pieces.all();
        std::ranges::stable_sort(order, std::greater{}, &piece::bytes);
        size_t gaps = 0;
        size_t others = 0;
        for (const piece& each : order) {
            size_t& so_far = each.state == piece_state::free ? gaps : others;
            if (so_far++ < most_of_a_kind) {
                _largest.insert(each.pa);
            }
        }
    }

    void add_row(const map_row& row) {
        add_text(margin, _y + line_height, pa_text(row.pa));
        if (row.is_folded) {
            add_text(margin, _y + 2 * line_height, "folded");
        }
        const auto bytes = static_cast<double>(row.is_folded ? row.bytes : _map.row_bytes);
        std::vector<label_beside> outside;
        for (drawn_piece& each : _pieces.drawn_on(row, row_width / bytes)) {
            each.x += row_left;
            add_piece(each, outside);
        }
        _y += row_height;
        add_labels_beside(outside);
        _y += line_height;
    }

    void add_piece(const drawn_piece& what, std::vector<label_beside>& outside) {
        constexpr double thinnest = 0.5;
        _page.boxes.push_back({what.x, _y, std::max(what.width, thinnest), row_height,
                               _pieces.look_of(what), _pieces.title_of(what)});
        label its_label = label_of(what);
        if (its_label.width_within() <= what.width) {
            write_within(its_label, what.x);
        } else if (what.pieces == 1 &&
                   (its_label.is_continued || _largest.contains(what.part.pa))) {
            const double x = what.x + std::min(what.width / 2, padding);
            outside.push_back({std::move(its_label), x});
        }
    }

    label label_of(const drawn_piece& what) const {
        const bool is_one = what.pieces == 1;
        const bool is_continued = is_one && _pieces.whole_of(what.part).pa != what.part.pa;
        label made{is_one ? what.part.owner : nullptr, is_continued, _pieces.lines_of(what), {}};
        if (is_one && what.part.state == piece_state::used && !is_continued) {
            made.marks = _marks.of(*what.part.owner);
        }
        return made;
    }

    void add_marks(const label& what, double x, double y) {
        for (map_mark each : what.marks) {
            each.x = x;
            each.y = y;
            x += map_mark_size + padding / 2;
            _marks.use(each);
            _page.marks.push_back(std::move(each));
        }
    }

    void write_within(const label& what, double x) {
        double y = _y;
        for (const std::string& line : what.lines) {
            y += line_height;
            add_text(x + padding, y, line);
        }
        add_marks(what, x + padding, y + padding);
        _named.insert(what.owner);
    }

    /// Labels stand right of their lines, the lower the further left they begin, and so cross none.
    /// Those for which the page ends too soon stand on the left, the other way round.
    void add_labels_beside(std::vector<label_beside>& labels) {
        constexpr size_t most_lanes = 60; // as many as there are labels
        label_lanes lanes{margin, page_width - margin, most_lanes};
        const auto others =
            std::stable_partition(labels.begin(), labels.end(), [](const label_beside& each) {
                return each.x + each.what.width_beside() + padding > page_width - margin;
            });
        std::reverse(others, labels.end());
        for (const label_beside& each : labels) {
            if (const auto place = lanes.add(each.x, each.what.width_beside())) {
                write_beside(each, *place);
            }
        }
        _y += static_cast<double>(lanes.used_lanes()) * line_height;
    }

    void write_beside(const label_beside& each, const label_lanes::place& place) {
        const double y = _y + static_cast<double>(place.lane + 1) * line_height;
        const std::string text = each.what.text_beside();
        _page.lines.push_back({each.x, _y, y});
        add_text(place.x, y, text);
        add_marks(each.what, place.x + width_on_page(text) + padding,
                  y - map_mark_size + padding / 2);
        _named.insert(each.what.owner);
    }

    // Below the rows.

    void add_unnamed() {
        _named.erase(nullptr);
        if (const size_t unnamed = _records.chunks.size() - _named.size(); unnamed > 0) {
            add_line_of_text(counted(unnamed, "chunk") + " too small to be named here; "
                                                         "'tarvoctl list' shows all");
        }
        _y += padding;
    }

    bool is_drawn(map_look look) const {
        return std::ranges::find(_page.boxes, look, &map_box::look) != _page.boxes.end();
    }

    void add_looks() {
        constexpr std::pair<map_look, const char*> all[] = {
            {map_look::even, "chunk"},
            {map_look::odd, "the chunk next to it"},
            {map_look::many, "chunks and gaps too narrow to draw"},
            {map_look::free, "free"},
            {map_look::overlapping, "in several chunks"},
            {map_look::unknown, "unknown"}};
        constexpr double swatch_width = 28;
        double x = margin;
        for (const auto& [look, text] : all) {
            if (is_drawn(look)) {
                _page.boxes.push_back({x, _y + padding, swatch_width, map_mark_size, look, text});
                add_text(x + swatch_width + padding, _y + line_height, text);
                x += swatch_width + padding + width_on_page(text) + margin;
            }
        }
        _y += line_height + padding;
    }

    void add_mark_texts() {
        double x = margin;
        const auto used = _marks.used();
        for (const auto& [mark, text] : used) {
            const double width = map_mark_size + padding + width_on_page(text);
            if (x > margin && x + width > page_width - margin) {
                x = margin;
                _y += line_height + padding;
            }
            _page.marks.push_back({x, _y + padding, mark.is_device, mark.number});
            add_text(x + map_mark_size + padding, _y + line_height, text);
            x += width + margin;
        }
        _y += used.empty() ? 0 : line_height + padding;
    }

    const picture& _records;
    map_marks _marks;
    map_pieces _pieces;
    map_rows _map{};
    map_page _page;
    double _y = 0;               ///< where the next thing begins
    std::set<uint64_t> _largest; ///< by address
    std::set<const chunk_record*> _named;
};

} // namespace

double width_on_page(const std::string& text) {
    constexpr double letter_width = 0.62 * map_text_size;
    size_t letters = 0;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        const bool goes_on = (byte & 0xc0U) == 0x80U;
        letters += goes_on ? 0U : byte < 0x80 ? 1U : 2U; // many of other scripts are wide
    }
    return static_cast<double>(letters) * letter_width;
}

map_page layout_of(const picture& records, const mapped_memory* memory, process_table& processes) {
    return page_layout{records, memory, processes}.page();
}

} // namespace tarvoctl
