#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace tarvoctl {

/// Places labels on lanes below a row of pieces. From each label a line leads up to its piece.
/// No label covers another one, or a line, and none leaves the page.
class label_lanes {
  public:
    label_lanes(double left, double right, std::size_t most_lanes)
        : left_{left}, right_{right}, most_lanes_{most_lanes} {}

    struct place {
        std::size_t lane; ///< 0 is the uppermost
        double x;         ///< where the label begins
    };

    /// For the piece at `x`, right or left of its line; nothing where there is no room.
    std::optional<place> add(double x, double width);

    std::size_t used_lanes() const { return used_lanes_; }

  private:
    struct span {
        std::size_t lane;
        double from;
        double to;
    };
    struct line {
        double x;
        std::size_t lane; ///< that it leads down to
    };

    bool is_free(const span& wanted, double line_x) const;

    double left_;
    double right_;
    std::size_t most_lanes_;
    std::size_t used_lanes_ = 0;
    std::vector<span> spans_;
    std::vector<line> lines_;
};

} // namespace tarvoctl
