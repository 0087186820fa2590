#pragma once

#include "common/unique_fd.hpp"
#include "machine/world.hpp"

namespace sandbox {

/// Lays out the world in the mount namespace in which this process is, where the FUSE file system
/// already covers /proc and is being answered by another process. real_proc is what it covers.
/// Throws trouble.
void build_world(const world& chosen, const unique_fd& real_proc);

} // namespace sandbox
