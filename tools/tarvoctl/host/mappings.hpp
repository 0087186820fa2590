#pragma once

#include "area/records.hpp"
#include "host/site.hpp"

#include <cstdint>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace tarvoctl {

/// Memory of the region, or of what else the memory file reaches, in one process. One mapping may
/// show several chunks: the kernel joins neighbours.
struct region_mapping {
    pid_t pid;
    uint64_t va; ///< in that process, of its first byte
    uint64_t pa; ///< of its first byte: the offset in the memory file
    uint64_t bytes;
    bool readable;
    bool writable;
    bool shared; ///< false: a private copy, which no device sees
    /// Of a simulated memory that was removed from under its path: newcomers see another one.
    bool removed;

    uint64_t end_pa() const { return pa + bytes; } ///< one past the last byte
};

/// Who uses the region, by /proc/*/maps. The tool itself is left out.
struct mapped_memory {
    std::vector<region_mapping> mappings; ///< by physical address, then by process
    std::vector<pid_t> users;             ///< have the area mapped: the library is started in them
    /// Have an area mapped that was removed from under its path: they share it with no newcomer.
    std::vector<pid_t> users_of_removed;
    /// Use an area with a memory that was removed: what they write others do not see.
    std::vector<pid_t> users_of_removed_memory;
    std::vector<pid_t> unseen; ///< may have mappings, too: theirs cannot be read
    /// Processes of other users cannot even be listed (/proc is mounted with hidepid).
    bool others_hidden = false;

    bool is_complete() const { return unseen.empty() && !others_hidden; }
    /// What is kept even from root does not count: it would prevent every change.
    bool root_would_see_more() const;
};

mapped_memory mappings_of(const site& here);

/// Bytes by physical address, the end one past the last.
struct pa_window {
    uint64_t pa;
    uint64_t end_pa;
};

/// What a mapping shows of the bytes from `pa` on; nothing where it shows none of them.
std::optional<pa_window> shown_of(const region_mapping& mapping, uint64_t pa, uint64_t end_pa);

/// The processes that have some of a chunk mapped, in ascending order.
std::vector<pid_t> holders_of(const chunk_record& chunk, const mapped_memory& memory);

/// Whether a mapping shows the whole region, as tarvo_map_all() makes it.
bool shows_all_of(const region_mapping& mapping, const dma_window& region);

} // namespace tarvoctl
