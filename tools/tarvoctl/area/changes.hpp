#pragma once

#include "area/records.hpp"

#include <optional>
#include <vector>

namespace tarvoctl {

enum class change_kind {
    freed,
    unregistered,
    registered,
    online,
    offline,
    allocated,
    replaced, ///< freed, and the name allocated again
    mapped,   ///< for a device
    unmapped,
};

/// "freed", "allocated" and so on, as people and programs read it.
const char* change_word(change_kind kind);

/// One difference between two pictures. It stands for itself: no picture need be kept for it. The
/// chunk of a mapping comes without its devices.
struct change {
    change_kind kind;
    std::optional<chunk_record> before{}; ///< of a chunk: as it was; nothing where it is new
    std::optional<chunk_record> after{};  ///< of a chunk: as it is; nothing where it was freed
    /// Of a device, or the one for which a chunk was mapped or unmapped: its element number.
    int device_index = -1;
    /// That device; nothing where no registered one has the number.
    std::optional<device_record> device{};
    /// Where it is not 0: no single change, but so many further ones of this kind.
    size_t more = 0;

    /// The chunk it is about, at its newest; only for changes of chunks.
    const chunk_record& chunk() const { return after ? *after : *before; }
};

/// There can be millions.
inline constexpr size_t most_mappings_listed = 65536;

/// What happened between two moments: chunks that went in ascending address, then devices, then
/// chunks that came or changed in ascending address. Chunks are distinguished by name, those of one
/// name by address; devices by domain, bus and devfn. A chunk keeps its address, size, creator and
/// element number as long as it lives: where one of them differs, the name was freed and allocated
/// again. What happened and was undone in between is not seen, nor a chunk that was allocated again
/// with all of them alike. The mappings of a chunk that came, went or was replaced are in its
/// record, not changes of their own. The regions are not compared. Mappings beyond
/// most_mappings_listed are counted.
std::vector<change> changes_between(const picture& before, const picture& after);

} // namespace tarvoctl
