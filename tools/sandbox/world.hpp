#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace sandbox {

/// The reserved region as the kernel describes it; last_pa is its last byte.
struct region {
    uint64_t first_pa = 0;
    uint64_t last_pa = 0;
    std::string name;

    bool is_cma() const { return name == "CMA"; }
};

/// What --without can leave out.
enum class item { proc, sysfs, mem, shmem, lockdir };

/// What the command finds: the machine that the sandbox plays.
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

/// The world of that name; throws failure where there is none.
world named_world(std::string_view name);

/// START-END[:NAME]; throws failure.
region parse_region(std::string_view text);

/// PROC, sysfs, ... as --without names them; throws failure.
item parse_item(std::string_view name);

void set_region(world& changed, const region& wanted);

/// Takes the text, escapes undone, as it is. Where it reads as a region line, the region is the one
/// it describes; otherwise the region stays as it was.
void set_region_line(world& changed, std::string_view text);

} // namespace sandbox
