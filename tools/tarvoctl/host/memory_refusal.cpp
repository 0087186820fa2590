#include "host/memory_refusal.hpp"

#include "common/failure.hpp"
#include "common/lockdown.hpp"
#include "host/folder_fault.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

/// The device that the project's own driver has for that.
constexpr const char* bind_own_device =
    "load a region driver that has a memory device of its own and bind that over {0}: "
    "mount --bind /dev/tarvo_mem {0}, or BindPaths=/dev/tarvo_mem:{0} in a service";

std::string fix_for(int error) {
    switch (error) {
    case ENOENT:
        return fmt::format("mknod -m 0600 {} c 1 1", paths::physical_memory);
    case ENXIO:
    case ENODEV:
        return "boot a kernel with CONFIG_DEVMEM=y";
    case EPERM:
        return "run with CAP_SYS_RAWIO";
    case EACCES:
        return run_as_root;
    default:
        return fmt::format("mv {0} {0}.old && mknod -m 0600 {0} c 1 1", paths::physical_memory);
    }
}

} // namespace

memory_refusal refusal_of_memory(int error) {
    const auto level = error == EPERM ? lockdown_level() : std::nullopt;
    if (!level) {
        return {error_text(error), fix_for(error)};
    }
    return {fmt::format("{}: the kernel is locked down ({}), and refuses it to root as well",
                        error_text(error), *level),
            fmt::format(bind_own_device, paths::physical_memory)};
}

} // namespace tarvoctl
