#include "output/region_bar.hpp"

#include "area/gaps.hpp"
#include "common/quantities.hpp"
#include "output/map_rows.hpp"
#include "output/text.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <set>
#include <unordered_map>

namespace tarvoctl {

namespace {

/// One sign of the picture, and what lies in its bytes.
struct cell {
    const chunk_record* owner = nullptr; ///< the chunk that has most of it; null: none
    uint64_t most_bytes = 0;             ///< the owner's
    uint64_t free_bytes = 0;
    bool has_unknown = false;
    bool overlaps = false;
    char label = '\0'; ///< part of a name, or a letter
};

using cell_row = std::vector<cell>;

struct signs {
    const char* free;
    const char* little;               ///< used
    const char* mostly;               ///< used, and partly free
    std::array<const char*, 2> chunk; ///< of neighbours in turn
};

signs signs_for(const screen& on) {
    return on.blocks ? signs{"·", "░", "▒", {"█", "▓"}} : signs{".", "-", "+", {"#", "="}};
}

/// Where the chunks' names stand and which sign each chunk has, for one picture.
class drawing {
  public:
    drawing(const picture& records, const screen& on, size_t most_lines)
        : _on{on}, _signs{signs_for(on)}, _pieces{pieces_of(records)}, _columns{columns_on(on)},
          _map{rows_of(_pieces, _columns * page_bytes, most_lines)}, _sign_bytes{_map.row_bytes /
                                                                                 _columns} {
        for (const map_row& row : _map.rows) {
            _rows.push_back(cells_on(row));
        }
        find_runs();
    }

    region_picture draw(const std::vector<const chunk_record*>& lettered) {
        region_picture made;
        write_names();
        write_letters(lettered, made.letters);
        for (size_t i = 0; i < _rows.size(); ++i) {
            made.text += pa_text(_map.rows[i].pa) + " |" + line_of(i) + "|\n";
        }
        made.legend = legend();
        made.sign_bytes = _sign_bytes;
        return made;
    }

  private:
    static constexpr uint64_t page_bytes = 4096;

    /// Cells of one chunk side by side on one row.
    struct run {
        size_t row = 0;
        size_t first = 0;
        size_t cells = 0;
    };

    /// A power of two, so that a sign stands for a round number of bytes.
    static size_t columns_on(const screen& on) {
        constexpr int frame_width = 15; // the address, a blank and two bars
        constexpr size_t widest = 128;
        size_t columns = 16;
        while (columns < widest && static_cast<int>(columns * 2) <= on.width - frame_width) {
            columns *= 2;
        }
        return columns;
    }

    cell_row cells_on(const map_row& row) const {
        if (row.is_folded) {
            return {};
        }
        const uint64_t last = (row.bytes - 1) / _sign_bytes;
        cell_row cells(static_cast<size_t>(last) + 1);
        for (const piece& each : _pieces) {
            const piece part = clipped(each, row);
            if (part.bytes != 0) {
                add(part, row, cells);
            }
        }
        return cells;
    }

    void add(const piece& part, const map_row& row, cell_row& cells) const {
        const uint64_t first = part.pa - row.pa;
        const uint64_t end = first + part.bytes;
        for (uint64_t at = first / _sign_bytes; at * _sign_bytes < end; ++at) {
            const uint64_t bytes =
                std::min(end, (at + 1) * _sign_bytes) - std::max(first, at * _sign_bytes);
            cell& one = cells[static_cast<size_t>(at)];
            one.free_bytes += part.state == piece_state::free ? bytes : 0;
            one.has_unknown = one.has_unknown || part.state == piece_state::unknown;
            one.overlaps = one.overlaps || part.state == piece_state::overlapping;
            if (part.owner != nullptr && bytes > one.most_bytes) {
                one.owner = part.owner;
                one.most_bytes = bytes;
            }
        }
    }

    /// The longest run of each chunk; on the way, chunks get their turns in drawing order.
    void find_runs() {
        for (size_t row = 0; row < _rows.size(); ++row) {
            run now{row, 0, 0};
            for (size_t i = 0; i < _rows[row].size(); ++i) {
                const chunk_record* const owner = _rows[row][i].owner;
                const bool goes_on = i > 0 && _rows[row][i - 1].owner == owner;
                now = goes_on ? run{row, now.first, now.cells + 1} : run{row, i, 1};
                if (owner != nullptr) {
                    _turns.try_emplace(owner, _turns.size());
                    run& longest = _runs[owner];
                    longest = now.cells > longest.cells ? now : longest;
                }
            }
        }
    }

    void write(const run& where, const std::string& text) {
        const size_t first = where.first + (where.cells - text.size()) / 2;
        for (size_t i = 0; i < text.size(); ++i) {
            _rows[where.row][first + i].label = text[i];
        }
    }

    /// With a sign on both sides. What is not ASCII may be wider on a terminal than can be known.
    void write_names() {
        for (const auto& [chunk, where] : _runs) {
            const std::string name = shown(chunk->name);
            const bool plain =
                std::ranges::all_of(name, [](char each) { return each > ' ' && each <= '~'; });
            if (plain && !name.empty() && name.size() + 2 <= where.cells) {
                write(where, name);
                _named.insert(chunk);
            }
        }
    }

    void write_letters(const std::vector<const chunk_record*>& lettered,
                       std::map<const chunk_record*, char>& letters) {
        constexpr std::string_view alphabet =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        for (const chunk_record* chunk : lettered) {
            const auto found = _runs.find(chunk);
            if (found != _runs.end() && !_named.contains(chunk) && !letters.contains(chunk) &&
                letters.size() < alphabet.size()) {
                const char letter = alphabet[letters.size()];
                letters[chunk] = letter;
                write(found->second, std::string(1, letter));
            }
        }
    }

    std::string sign_of(const cell& one) const {
        if (one.overlaps) {
            return "!";
        }
        if (one.label != '\0') {
            return {one.label};
        }
        if (one.owner == nullptr) {
            return one.has_unknown ? "?" : _signs.free;
        }
        if (one.free_bytes == 0 && !one.has_unknown) {
            return _signs.chunk[_turns.at(one.owner) % 2];
        }
        return one.free_bytes > _sign_bytes / 2 ? _signs.little : _signs.mostly;
    }

    std::string coloured(const cell& one) const {
        constexpr std::array colours{34, 36, 32, 33, 35};
        if (!_on.colour || one.owner == nullptr) {
            return sign_of(one);
        }
        return fmt::format("\x1b[{}m{}\x1b[0m", colours[_turns.at(one.owner) % colours.size()],
                           sign_of(one));
    }

    std::string folded_line(uint64_t bytes) const {
        const std::string words = fmt::format(" {} free, folded ", size_text(bytes));
        const size_t signs = _columns - std::min(_columns, words.size());
        std::string line;
        for (size_t i = 0; i < signs; ++i) {
            line += i == signs / 2 ? words : "";
            line += _signs.free;
        }
        return line;
    }

    std::string line_of(size_t row) const {
        if (_map.rows[row].is_folded) {
            return folded_line(_map.rows[row].bytes);
        }
        std::string line;
        for (const cell& one : _rows[row]) {
            line += coloured(one);
        }
        return line + std::string(_columns - _rows[row].size(), ' ');
    }

    bool any(bool cell::*what) const {
        return std::ranges::any_of(
            _rows, [what](const cell_row& row) { return std::ranges::any_of(row, what); });
    }

    std::string legend() const {
        return fmt::format(
            "One sign is {}: {} and {} chunks in turn, {} {} partly free, {} free{}{}",
            size_text(_sign_bytes), _signs.chunk[0], _signs.chunk[1], _signs.mostly, _signs.little,
            _signs.free, any(&cell::overlaps) ? ", ! in several chunks" : "",
            any(&cell::has_unknown) ? ", ? unknown" : "");
    }

    const screen& _on;
    signs _signs;
    std::vector<piece> _pieces;
    size_t _columns;
    map_rows _map;
    uint64_t _sign_bytes;
    std::vector<cell_row> _rows; ///< no cells where it is folded
    std::unordered_map<const chunk_record*, size_t> _turns;
    std::unordered_map<const chunk_record*, run> _runs;
    std::set<const chunk_record*> _named;
};

} // namespace

region_picture draw_region(const picture& records, const screen& on, size_t most_lines,
                           const std::vector<const chunk_record*>& lettered) {
    return drawing{records, on, most_lines}.draw(lettered);
}

std::string region_bar(const picture& records, const screen& on, size_t most_lines) {
    return draw_region(records, on, most_lines, {}).text;
}

} // namespace tarvoctl
