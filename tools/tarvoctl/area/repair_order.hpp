#pragma once

#include "check_record.hpp"
#include "repair.hpp"

#include <vector>

// Which elements a damaged list consists of, and in which order.

namespace tarvoctl {

struct decided_list {
    std::vector<int> order;
    /// Elements that are neither listed nor given back, because nobody can tell what they are.
    std::vector<int> left_alone;
};

/// Decides a list whose order does not matter: all that is linked belongs to it.
decided_list decide_unordered(const list_links& links, repair_plan& plan);

/// Decides the list of the chunks between sentinels whose numbers are `head` and `tail`: ascending
/// address, whatever the links say.
decided_list decide_chunks(const shared_area_t& area, int head, int tail, repair_plan& plan);

} // namespace tarvoctl
