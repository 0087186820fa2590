#include "commands/commands.hpp"
#include "program.hpp"

int main(int argc, char** argv) {
    tarvoctl::program tool;
    // In the order in which the help lists them.
    for (const auto add : {
             tarvoctl::add_list,
             tarvoctl::add_devices,
             tarvoctl::add_map,
             tarvoctl::add_snapshot,
             tarvoctl::add_check,
         }) {
        add(tool);
    }
    return tool.run(argc, argv);
}
