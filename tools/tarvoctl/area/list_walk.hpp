#pragma once

#include "raw_records.hpp"

#include <functional>
#include <optional>
#include <string>

namespace tarvoctl {

/// Why a walk ended, and at which element.
struct walk_end {
    enum class reason {
        stopped,      ///< by `visit`
        out_of_range, ///< no element has the number
        repeated,     ///< it was visited before
    };
    reason why;
    int32_t element;
};

/// The way along the links: &list_links::next or &list_links::prev.
using link_direction = int32_t (list_links::*)(int) const;

/// Follows links that may be damaged, and visits each element once at most. `visit` returns whether
/// the walk goes on.
walk_end walk(const list_links& links, int32_t first, link_direction along,
              const std::function<bool(int)>& visit);

/// Visits the elements of a list from head to tail, each once. Returns why elements may be missing,
/// or nothing: the walk ended early, or an element does not name the one the walk came from as its
/// predecessor, so that a link may have skipped some.
std::optional<std::string> walk_list(const list_links& links,
                                     const std::function<void(int)>& visit);

} // namespace tarvoctl
