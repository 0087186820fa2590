#pragma once

#include "finding.hpp"
#include "shared/layout.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarvoctl {

/// One change of the area's bytes.
struct repair_edit {
    size_t offset = 0; ///< in the area file
    std::vector<uint8_t> before;
    std::vector<uint8_t> after; ///< as many as `before`
    place where;
    std::string why;

    /// Whether this only clears left-over bytes.
    bool zeroes() const;
};

/// Something that is wrong and cannot be decided from the bytes alone.
struct repair_doubt {
    place where;
    std::string why;
};

/// A plan with doubts should not be applied before they are decided: it makes the lists whole
/// around what it leaves alone, and the next plan then takes that for the rest of a change.
struct repair_plan {
    std::vector<repair_edit> edits; ///< no two of them overlap; in the order in which to apply them
    std::vector<repair_doubt> doubts; ///< left as they are, to be decided by a person
};

/// Plans how to make an area whole again after a process died in the middle of a change: the change
/// is completed or undone, and all other records stay as they are. The list that the library's own
/// walk (from the head along `next` to the tail) visits is taken as the truth while that walk is
/// sound. An area that was not built yet needs nothing: the next process builds it from nothing.
///
/// What check_area() still finds in the repaired area is damage that no interrupted change leaves,
/// such as a record whose text is destroyed.
repair_plan plan_repair(const shared_area_t& area);

/// What helps against what check_area() found in an area, as a sentence without its end: repair
/// where it has anything to do. `repair`: the command that repairs this area.
std::string advice_on(const std::vector<finding>& findings, const shared_area_t& area,
                      const std::string& repair);

/// Makes the changes. The caller holds the lock, and the area is still the one planned for.
void apply(const repair_plan& plan, shared_area_t& area);

} // namespace tarvoctl
