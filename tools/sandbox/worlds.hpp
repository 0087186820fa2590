#pragma once

#include "machine/world.hpp"

#include <string>
#include <string_view>

namespace sandbox {

// Worlds as the command line describes them. All that can refuse a text throw trouble.

/// The world of that name.
world named_world(std::string_view name);

/// All names, a line each with what it stands for.
std::string world_list();

/// START-END[:NAME]
region parse_region(std::string_view text);

/// proc, sysfs, ... as --without names them.
item parse_item(std::string_view name);

void set_region(world& changed, const region& wanted);

/// Takes the text, escapes undone, as it is. Where it reads as a region line, the region is the one
/// it describes; otherwise the region stays as it was.
void set_region_line(world& changed, std::string_view text);

} // namespace sandbox
