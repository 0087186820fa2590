#pragma once

#include "raw_records.hpp"
#include "repair.hpp"

#include <vector>

// Which elements a damaged list consists of, and in which order.

namespace tarvoctl {

struct decided_list {
    std::vector<int> order;
    /// Elements that are neither listed nor given back, because the bytes do not show what they
    /// are.
    std::vector<int> left_alone;
};

/// Decides the list of the devices, whose order does not matter: all that is linked belongs to it.
/// A device that the list still names is never given back, whatever its flag says.
decided_list decide_devices(const shared_area_t& area, repair_plan& plan);

/// The same for a chunk's references to devices.
decided_list decide_refs(const list_links& links, repair_plan& plan);

/// Decides the list of the chunks between sentinels whose numbers are `head` and `tail`: ascending
/// address, whatever the links say.
decided_list decide_chunks(const shared_area_t& area, int head, int tail, repair_plan& plan);

} // namespace tarvoctl
