#include "output/region_bar.hpp"

#include "area/gaps.hpp"
#include "output/text.hpp"
#include "quantities.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

/// Adds a chunk's bytes to the cells it lies in.
void add_chunk(const chunk_record& chunk, int position, const dma_window& region,
               double bytes_per_cell, std::vector<double>& used, std::vector<double>& most,
               std::vector<bar_cell>& cells) {
    const auto first = static_cast<double>(chunk.pa - region.first_pa);
    const double end = first + chunk.size;
    for (auto i = static_cast<std::size_t>(first / bytes_per_cell); i < cells.size(); ++i) {
        const double cell_first = static_cast<double>(i) * bytes_per_cell;
        const double inside =
            std::min(end, cell_first + bytes_per_cell) - std::max(first, cell_first);
        if (inside <= 0)
            break;
        used[i] += inside;
        if (inside > most[i]) {
            most[i] = inside;
            cells[i].chunk = position;
        }
    }
}

/// Marks the cells of which something cannot be told or is taken twice.
void mark(const piece& marked, const dma_window& region, double bytes_per_cell,
          std::vector<bar_cell>& cells) {
    if (marked.state != piece_state::unknown && marked.state != piece_state::overlapping) {
        return;
    }
    const auto cell_at = [&](uint64_t pa) {
        const auto cell = static_cast<double>(pa - region.first_pa) / bytes_per_cell;
        return std::min(static_cast<std::size_t>(cell), cells.size() - 1);
    };
    const bool overlaps = marked.state == piece_state::overlapping;
    for (std::size_t i = cell_at(marked.pa); i <= cell_at(marked.pa + marked.bytes - 1); ++i) {
        if (overlaps) {
            cells[i].what = bar_cell::content::overlapping;
        } else if (cells[i].what == bar_cell::content::free) {
            cells[i].what = bar_cell::content::unknown;
        }
    }
}

struct letters {
    const char* free;
    const char* partly;
    const char* full;
};

letters letters_for(const screen& on) {
    return on.blocks ? letters{"·", "▒", "█"} : letters{".", "+", "#"};
}

const char* letter_of(const bar_cell& cell, const letters& alphabet) {
    switch (cell.what) {
    case bar_cell::content::free:
        return alphabet.free;
    case bar_cell::content::partly:
        return alphabet.partly;
    case bar_cell::content::overlapping:
        return "!";
    case bar_cell::content::unknown:
        return "?";
    case bar_cell::content::full:
        break;
    }
    return alphabet.full;
}

/// Neighbours differ in colour, so that one can tell them apart.
std::string coloured(const bar_cell& cell, const letters& alphabet, bool colour) {
    constexpr std::array colours{34, 36, 32, 33, 35};
    const char* const letter = letter_of(cell, alphabet);
    if (!colour || cell.chunk < 0)
        return letter;
    return fmt::format("\x1b[{}m{}\x1b[0m",
                       colours[static_cast<std::size_t>(cell.chunk) % colours.size()], letter);
}

} // namespace

std::vector<bar_cell> cells_of(const picture& records, std::size_t cells) {
    // Bytes are counted as floating point numbers: a picture needs no more than their proportion.
    const auto bytes = static_cast<double>(records.region.end_pa - records.region.first_pa);
    const double bytes_per_cell = bytes / static_cast<double>(cells);
    std::vector<bar_cell> made(cells);
    std::vector<double> used(cells);
    std::vector<double> most(cells);
    for (std::size_t i = 0; i < records.chunks.size(); ++i) {
        const chunk_record& chunk = records.chunks[i];
        if (chunk.pa >= records.region.first_pa && chunk.pa < records.region.end_pa)
            add_chunk(chunk, static_cast<int>(i), records.region, bytes_per_cell, used, most, made);
    }
    for (std::size_t i = 0; i < cells; ++i) {
        constexpr double nearly_all = 0.999;
        if (used[i] > 0)
            made[i].what = bar_cell::content::partly;
        if (used[i] >= nearly_all * bytes_per_cell)
            made[i].what = bar_cell::content::full;
    }
    for (const auto& each : pieces_of(records)) {
        mark(each, records.region, bytes_per_cell, made);
    }
    return made;
}

std::string region_bar(const picture& records, const screen& on, std::size_t most_lines) {
    constexpr int frame_width = 16; // the address and two bars
    constexpr int widest = 128;
    const auto width = static_cast<std::size_t>(std::clamp(on.width - frame_width, 16, widest));
    const uint64_t bytes = records.region.end_pa - records.region.first_pa;
    const letters alphabet = letters_for(on);
    const auto cells = cells_of(records, width * most_lines);
    std::string made;
    for (std::size_t line = 0; line < most_lines; ++line) {
        made += pa_text(records.region.first_pa + bytes / most_lines * line) + " |";
        for (std::size_t i = line * width; i < (line + 1) * width; ++i)
            made += coloured(cells[i], alphabet, on.colour);
        made += "|\n";
    }
    return made;
}

namespace {

constexpr int svg_width = 960;
constexpr int svg_height = 96;

std::string escaped(const std::string& text) {
    std::string made;
    for (const char each : text) {
        switch (each) {
        case '&':
            made += "&amp;";
            break;
        case '<':
            made += "&lt;";
            break;
        case '"':
            made += "&quot;";
            break;
        default:
            made += each;
        }
    }
    return made;
}

std::string svg_chunk(const chunk_record& chunk, std::size_t position, const dma_window& region) {
    constexpr std::array colours{"#3b6ea5", "#4f9d9d", "#6a994e", "#c9a227", "#8e5a9b"};
    constexpr double thinnest = 0.5;
    const auto bytes = static_cast<double>(region.end_pa - region.first_pa);
    const double scale = svg_width / bytes;
    return fmt::format("  <rect x=\"{:.2f}\" y=\"24\" width=\"{:.2f}\" height=\"40\" fill=\"{}\">"
                       "<title>{}: {}, {}</title></rect>\n",
                       static_cast<double>(chunk.pa - region.first_pa) * scale,
                       std::max(thinnest, chunk.size * scale), colours[position % colours.size()],
                       escaped(shown(chunk.name)), pa_range(chunk.pa, chunk.end_pa()),
                       size_with_bytes(chunk.size));
}

} // namespace

std::string region_svg(const picture& records) {
    const dma_window& region = records.region;
    std::string made =
        fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" "
                    "width=\"{0}\" height=\"{1}\" font-family=\"monospace\" font-size=\"12\">\n"
                    "  <rect x=\"0\" y=\"24\" width=\"{0}\" height=\"40\" fill=\"#e8e8e8\"/>\n",
                    svg_width, svg_height);
    for (std::size_t i = 0; i < records.chunks.size(); ++i)
        made += svg_chunk(records.chunks[i], i, region);
    made += fmt::format("  <text x=\"0\" y=\"84\">{}</text>\n"
                        "  <text x=\"{}\" y=\"84\" text-anchor=\"end\">{}</text>\n"
                        "  <text x=\"0\" y=\"16\">{}</text>\n</svg>\n",
                        pa_text(region.first_pa), svg_width, pa_text(region.end_pa - 1),
                        counted(records.chunks.size(), "chunk"));
    return made;
}

} // namespace tarvoctl
