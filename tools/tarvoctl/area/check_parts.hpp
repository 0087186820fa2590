#pragma once

#include "check.hpp"
#include "check_list.hpp"

// The checks of an area's records, for the elements that the lists were found to hold.

namespace tarvoctl {

/// The chunks' own fields: sentinels, names, places in the region, and what is left in free ones.
void check_chunks(const shared_area_t& area, const list_members& chunks,
                  const check_options& options, report& found);

void check_devices(const shared_area_t& area, const list_members& devices, report& found);

/// Each chunk's list of devices, against the devices that are registered.
void check_refs(const shared_area_t& area, const list_members& chunks, const list_members& devices,
                report& found);

/// Whether a chunk stands where a sentinel has to: at either end of the list.
inline bool is_at_an_end(const shared_area_t& area, int chunk) {
    return chunk == area.chunks._head || chunk == area.chunks._tail;
}

} // namespace tarvoctl
