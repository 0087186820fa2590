#include "doctor/diagnosis.hpp"
#include "shared/paths.hpp"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>

namespace tarvoctl {

size_t health_report::count(verdict how) const {
    return static_cast<size_t>(std::ranges::count(_all, how, &diagnosis::how));
}

namespace {

/// What is there may be what another user simulates with, or no file of the library's at all.
std::string unusable_memory_fix() {
    if (::access(paths::simulated_memory, F_OK) == 0) {
        return fmt::format("end all programs that use {0}, then mv {0} {0}.old",
                           paths::simulated_memory);
    }
    return fmt::format("mkdir -p -m 1777 {0}; chmod 1777 {0}",
                       std::filesystem::path{paths::simulated_memory}.parent_path().string());
}

std::string fix_for_left_over(bool has_driver) {
    return fmt::format("{}for simulation, set {} for all programs",
                       has_driver ? fmt::format("for hardware, end all programs that use the "
                                                "library, then rm {}; ",
                                                paths::simulated_memory)
                                  : "",
                       simulation_variable);
}

std::string fix_for_hardware() {
    return fmt::format("for hardware, unset {}{}", simulation_variable,
                       ::access(paths::simulated_memory, F_OK) == 0
                           ? fmt::format(" and rm {}", paths::simulated_memory)
                           : "");
}

} // namespace

void diagnose_selection(const site& here, health_report& report) {
    const bool asked_for = simulation_is_asked_for();
    const bool has_driver = ::access(paths::region_driver, F_OK) == 0;
    const std::string chosen =
        fmt::format("{}, because {}", here.simulation ? "simulation" : "hardware", here.reason);
    if (here.simulation && !asked_for) {
        report.add(verdict::warning, "selection",
                   fmt::format("{}; {} is not set{}", chosen, simulation_variable,
                               has_driver ? ", and this machine has a region driver" : ""),
                   fix_for_left_over(has_driver));
    } else if (asked_for && !here.simulation) {
        report.add(verdict::error, "selection",
                   chosen + ": programs that ask for simulation get the hardware",
                   unusable_memory_fix());
    } else if (asked_for && has_driver) {
        report.add(verdict::note, "selection",
                   chosen + ", although this machine has a region driver", fix_for_hardware());
    } else if (!here.simulation && ::access(paths::simulated_memory, F_OK) == 0) {
        report.add(verdict::warning, "selection", chosen + "; users who can get a simulation",
                   unusable_memory_fix());
    } else {
        report.add(verdict::ok, "selection", chosen);
    }
}

} // namespace tarvoctl
