#pragma once

#include "area/gaps.hpp"
#include "output/map_layout.hpp"
#include "output/map_rows.hpp"

#include <string>
#include <unordered_map>
#include <vector>

namespace tarvoctl {

/// What is drawn as one box on a row: part of a piece, or several pieces that are too narrow to be
/// distinguished.
struct drawn_piece {
    piece part; ///< of several pieces the first one, with the bytes of all
    double x;   ///< from the row's left end
    double width;
    size_t pieces;
    size_t chunks; ///< how many of them are chunks
};

/// The pieces of a region, as they are drawn and described.
class map_pieces {
  public:
    explicit map_pieces(const picture& records);

    const std::vector<piece>& all() const { return _pieces; }
    std::vector<drawn_piece> drawn_on(const map_row& row, double pixels_per_byte) const;

    /// The whole of what part of is drawn: sizes and addresses are those of the whole.
    const piece& whole_of(const piece& part) const;

    map_look look_of(const drawn_piece& what) const;
    /// Name, size and address, a line each.
    std::vector<std::string> lines_of(const drawn_piece& what) const;
    /// All on one line, and the name in full.
    std::string title_of(const drawn_piece& what) const;

  private:
    std::vector<piece> _pieces;
    std::unordered_map<const chunk_record*, map_look> _looks; ///< of neighbours in turn
};

} // namespace tarvoctl
