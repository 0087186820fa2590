#include "commands/commands.hpp"
#include "program.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace {

/// A standard descriptor that is closed would be given to the next file that is opened, and the
/// library's messages be written into it. In its place input and output are files that refuse to be
/// read and written, so that nothing is lost unnoticed; messages nobody wants go nowhere.
void occupy_closed_descriptors() {
    constexpr int ways[] = {O_WRONLY, O_RDONLY, O_WRONLY};
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) ==
            -1) { // the lowest free number, so open() gives that one
            static_cast<void>(::open("/dev/null", ways[descriptor]));
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    occupy_closed_descriptors();
    tarvoctl::program tool;
    // In the order in which the help lists them.
    tarvoctl::add_list(tool);
    tarvoctl::add_show(tool);
    tarvoctl::add_devices(tool);
    tarvoctl::add_who(tool);
    tarvoctl::add_lock(tool);
    tarvoctl::add_leaks(tool);
    tarvoctl::add_map(tool);
    tarvoctl::add_snapshot(tool);
    tarvoctl::add_diff(tool);
    tarvoctl::add_watch(tool);
    tarvoctl::add_top(tool);
    tarvoctl::add_read(tool);
    tarvoctl::add_find(tool);
    tarvoctl::add_translate(tool);
    tarvoctl::add_limits(tool);
    tarvoctl::add_dump(tool);
    tarvoctl::add_alloc(tool);
    tarvoctl::add_free(tool);
    tarvoctl::add_write(tool);
    tarvoctl::add_fill(tool);
    tarvoctl::add_register(tool);
    tarvoctl::add_unregister(tool);
    tarvoctl::add_iommu_map(tool);
    tarvoctl::add_iommu_unmap(tool);
    tarvoctl::add_doctor(tool);
    tarvoctl::add_check(tool);
    tarvoctl::add_repair(tool);
    return tool.run(argc, argv);
}
