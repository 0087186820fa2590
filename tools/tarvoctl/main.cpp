#include "commands/commands.hpp"
#include "program.hpp"

int main(int argc, char** argv) {
    tarvoctl::program tool;
    // In the order in which the help lists them.
    for (const auto add : {
             tarvoctl::add_list,       tarvoctl::add_show,      tarvoctl::add_devices,
             tarvoctl::add_who,        tarvoctl::add_lock,      tarvoctl::add_map,
             tarvoctl::add_snapshot,   tarvoctl::add_diff,      tarvoctl::add_read,
             tarvoctl::add_find,       tarvoctl::add_translate, tarvoctl::add_limits,
             tarvoctl::add_dump,       tarvoctl::add_alloc,     tarvoctl::add_free,
             tarvoctl::add_write,      tarvoctl::add_fill,      tarvoctl::add_register,
             tarvoctl::add_unregister, tarvoctl::add_iommu_map, tarvoctl::add_iommu_unmap,
             tarvoctl::add_check,      tarvoctl::add_repair,
         }) {
        add(tool);
    }
    return tool.run(argc, argv);
}
