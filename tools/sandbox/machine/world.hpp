#pragma once

#include "driver/region.hpp"

#include <optional>
#include <set>
#include <string>

namespace sandbox {

/// What --without can leave out.
enum class item { proc, sysfs, mem, shmem, lockdir };

/// What the command finds: the simulated machine.
struct world {
    bool simulation = false;
    /// None: no /proc/tarvo and no /dev/mem.
    std::optional<sandbox::region> region;
    /// The first line of /proc/tarvo, newline included; empty: no such file.
    std::string region_line;
    std::set<item> without;
    /// Where on the host the state is kept; empty: nowhere.
    std::string state_dir;

    bool has(item asked) const { return !without.contains(asked); }
    bool has_proc_file() const { return has(item::proc) && !region_line.empty(); }
    bool has_mem_file() const { return has(item::mem) && region.has_value(); }
};

} // namespace sandbox
