#include "output/region_bar.hpp"

#include "area/gaps.hpp"
#include "output/map_rows.hpp"
#include "output/text.hpp"
#include "quantities.hpp"

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
    drawing(const picture& records, const screen& on, std::size_t most_lines)
        : on_{on}, signs_{signs_for(on)}, pieces_{pieces_of(records)}, columns_{columns_on(on)},
          map_{rows_of(pieces_, columns_ * page_bytes, most_lines)}, sign_bytes_{map_.row_bytes /
                                                                                 columns_} {
        for (const map_row& row : map_.rows) {
            rows_.push_back(cells_on(row));
        }
        find_runs();
    }

    region_picture draw(const std::vector<const chunk_record*>& lettered) {
        region_picture made;
        write_names();
        write_letters(lettered, made.letters);
        for (std::size_t i = 0; i < rows_.size(); ++i) {
            made.text += pa_text(map_.rows[i].pa) + " |" + line_of(i) + "|\n";
        }
        made.legend = legend();
        made.sign_bytes = sign_bytes_;
        return made;
    }

  private:
    static constexpr uint64_t page_bytes = 4096;

    /// Cells of one chunk side by side on one row.
    struct run {
        std::size_t row = 0;
        std::size_t first = 0;
        std::size_t cells = 0;
    };

    /// A power of two, so that a sign stands for a round number of bytes.
    static std::size_t columns_on(const screen& on) {
        constexpr int frame_width = 15; // the address, a blank and two bars
        constexpr std::size_t widest = 128;
        std::size_t columns = 16;
        while (columns < widest && static_cast<int>(columns * 2) <= on.width - frame_width) {
            columns *= 2;
        }
        return columns;
    }

    cell_row cells_on(const map_row& row) const {
        if (row.is_folded) {
            return {};
        }
        const uint64_t last = (row.bytes - 1) / sign_bytes_;
        cell_row cells(static_cast<std::size_t>(last) + 1);
        for (const piece& each : pieces_) {
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
        for (uint64_t at = first / sign_bytes_; at * sign_bytes_ < end; ++at) {
            const uint64_t bytes =
                std::min(end, (at + 1) * sign_bytes_) - std::max(first, at * sign_bytes_);
            cell& one = cells[static_cast<std::size_t>(at)];
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
        for (std::size_t row = 0; row < rows_.size(); ++row) {
            run now{row, 0, 0};
            for (std::size_t i = 0; i < rows_[row].size(); ++i) {
                const chunk_record* const owner = rows_[row][i].owner;
                const bool goes_on = i > 0 && rows_[row][i - 1].owner == owner;
                now = goes_on ? run{row, now.first, now.cells + 1} : run{row, i, 1};
                if (owner != nullptr) {
                    turns_.try_emplace(owner, turns_.size());
                    run& longest = runs_[owner];
                    longest = now.cells > longest.cells ? now : longest;
                }
            }
        }
    }

    void write(const run& where, const std::string& text) {
        const std::size_t first = where.first + (where.cells - text.size()) / 2;
        for (std::size_t i = 0; i < text.size(); ++i) {
            rows_[where.row][first + i].label = text[i];
        }
    }

    /// With a sign on both sides. What is no ASCII may be wider on a terminal than can be known.
    void write_names() {
        for (const auto& [chunk, where] : runs_) {
            const std::string name = shown(chunk->name);
            const bool plain = std::all_of(name.begin(), name.end(),
                                           [](char each) { return each > ' ' && each <= '~'; });
            if (plain && !name.empty() && name.size() + 2 <= where.cells) {
                write(where, name);
                named_.insert(chunk);
            }
        }
    }

    void write_letters(const std::vector<const chunk_record*>& lettered,
                       std::map<const chunk_record*, char>& letters) {
        constexpr std::string_view alphabet =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        for (const chunk_record* chunk : lettered) {
            const auto found = runs_.find(chunk);
            if (found != runs_.end() && !named_.contains(chunk) && !letters.contains(chunk) &&
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
            return std::string(1, one.label);
        }
        if (one.owner == nullptr) {
            return one.has_unknown ? "?" : signs_.free;
        }
        if (one.free_bytes == 0 && !one.has_unknown) {
            return signs_.chunk[turns_.at(one.owner) % 2];
        }
        return one.free_bytes > sign_bytes_ / 2 ? signs_.little : signs_.mostly;
    }

    std::string coloured(const cell& one) const {
        constexpr std::array colours{34, 36, 32, 33, 35};
        if (!on_.colour || one.owner == nullptr) {
            return sign_of(one);
        }
        return fmt::format("\x1b[{}m{}\x1b[0m", colours[turns_.at(one.owner) % colours.size()],
                           sign_of(one));
    }

    std::string folded_line(uint64_t bytes) const {
        const std::string words = fmt::format(" {} free, folded ", size_text(bytes));
        const std::size_t signs = columns_ - std::min(columns_, words.size());
        std::string line;
        for (std::size_t i = 0; i < signs; ++i) {
            line += i == signs / 2 ? words : "";
            line += signs_.free;
        }
        return line;
    }

    std::string line_of(std::size_t row) const {
        if (map_.rows[row].is_folded) {
            return folded_line(map_.rows[row].bytes);
        }
        std::string line;
        for (const cell& one : rows_[row]) {
            line += coloured(one);
        }
        return line + std::string(columns_ - rows_[row].size(), ' ');
    }

    bool any(bool cell::*what) const {
        return std::any_of(rows_.begin(), rows_.end(), [what](const cell_row& row) {
            return std::any_of(row.begin(), row.end(),
                               [what](const cell& one) { return one.*what; });
        });
    }

    std::string legend() const {
        return fmt::format(
            "One sign is {}: {} and {} chunks in turn, {} {} partly free, {} free{}{}",
            size_text(sign_bytes_), signs_.chunk[0], signs_.chunk[1], signs_.mostly, signs_.little,
            signs_.free, any(&cell::overlaps) ? ", ! in several chunks" : "",
            any(&cell::has_unknown) ? ", ? not known" : "");
    }

    const screen& on_;
    signs signs_;
    std::vector<piece> pieces_;
    std::size_t columns_;
    map_rows map_;
    uint64_t sign_bytes_;
    std::vector<cell_row> rows_; ///< no cells where it is folded
    std::unordered_map<const chunk_record*, std::size_t> turns_;
    std::unordered_map<const chunk_record*, run> runs_;
    std::set<const chunk_record*> named_;
};

} // namespace

region_picture draw_region(const picture& records, const screen& on, std::size_t most_lines,
                           const std::vector<const chunk_record*>& lettered) {
    return drawing{records, on, most_lines}.draw(lettered);
}

std::string region_bar(const picture& records, const screen& on, std::size_t most_lines) {
    return draw_region(records, on, most_lines, {}).text;
}

} // namespace tarvoctl
