#pragma once

namespace tarvoctl {

class program;

/// Each command adds itself to the command line.
void add_list(program& to);
void add_show(program& to);
void add_devices(program& to);
void add_who(program& to);
void add_lock(program& to);
void add_leaks(program& to);
void add_map(program& to);
void add_doctor(program& to);
void add_check(program& to);
void add_repair(program& to);
void add_snapshot(program& to);
void add_diff(program& to);
void add_alloc(program& to);
void add_free(program& to);
void add_read(program& to);
void add_write(program& to);
void add_fill(program& to);
void add_find(program& to);
void add_translate(program& to);
void add_limits(program& to);
void add_register(program& to);
void add_unregister(program& to);
void add_iommu_map(program& to);
void add_iommu_unmap(program& to);
void add_dump(program& to);
void add_watch(program& to);
void add_top(program& to);

} // namespace tarvoctl
