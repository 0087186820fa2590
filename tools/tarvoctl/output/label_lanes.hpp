#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace tarvoctl {

/// Places labels on lanes below a row of pieces. From each label a line leads up to its piece.
/// No label covers another one, or a line, and none leaves the page.
class label_lanes {
  public:
    label_lanes(double left, double right, size_t most_lanes)
        : _left{left}, _right{right}, _most_lanes{most_lanes} {}

    struct place {
        size_t lane; ///< 0 is the uppermost
        double x;    ///< where the label begins
    };

    /// For the piece at `x`, right or left of its line; nothing where there is no room.
    std::optional<place> add(double x, double width);

    size_t used_lanes() const { return _used_lanes; }

  private:
    struct span {
        size_t lane;
        double from;
        double to;
    };
    struct line {
        double x;
        size_t lane; ///< that it leads down to
    };

    bool is_free(const span& wanted, double line_x) const;

    double _left;
    double _right;
    size_t _most_lanes;
    size_t _used_lanes = 0;
    std::vector<span> _spans;
    std::vector<line> _lines;
};

} // namespace tarvoctl
