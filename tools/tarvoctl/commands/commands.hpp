#pragma once

namespace tarvoctl {

class program;

// Each command adds itself to the command line.
void add_list(program& to);
void add_show(program& to);
void add_devices(program& to);
void add_who(program& to);
void add_lock(program& to);
void add_leaks(program& to);
void add_map(program& to);
void add_check(program& to);
void add_repair(program& to);
void add_snapshot(program& to);
void add_diff(program& to);

} // namespace tarvoctl
