#include "doctor/diagnosis.hpp"
#include "host/folder_fault.hpp"
#include "shared/paths.hpp"

#include <array>
#include <fmt/format.h>
#include <fstream>

namespace tarvoctl {

namespace {

/// A setting of the kernel's by which programs do not use what other users left in a folder where
/// anybody may make files.
struct protection {
    const char* name; ///< below fs.
    std::string harm; ///< while it is 0
};

std::array<protection, 4> protections() {
    const std::string memory = paths::simulated_memory;
    const std::string area = paths::simulated_area;
    const std::string lock = paths::simulated_lock;
    return {
        {{"protected_symlinks", "a program of root's follows a link that any user makes at " +
                                    memory + " or " + area +
                                    ", and changes the length of the file it leads to"},
         {"protected_hardlinks", "any user can give a file of root's the name " + memory + " or " +
                                     area + ", and a program of root's changes its length"},
         {"protected_fifos",
          "a FIFO that any user makes at " + lock + " keeps every start waiting for ever"},
         {"protected_regular",
          "files that any user made first are used, and their owner can close them to others"}}};
}

/// False where the kernel does not say.
bool is_off(const protection& each) {
    std::ifstream setting{fmt::format("/proc/sys/fs/{}", each.name)};
    int level = 0;
    return setting >> level && level == 0;
}

} // namespace

void diagnose_protection(health_report& report) {
    const std::string folder = parent_of(paths::simulated_memory);
    bool all_on = true;
    for (const auto& each : protections()) {
        if (is_off(each)) {
            all_on = false;
            report.add(verdict::note, fmt::format("fs.{}", each.name),
                       fmt::format("is 0: where users are not trusted, {}", each.harm),
                       fmt::format("sysctl fs.{0}=1; 'fs.{0} = 1' in a file of /etc/sysctl.d keeps "
                                   "it",
                                   each.name));
        }
    }
    if (all_on) {
        report.add(verdict::ok, "fs.protected_*",
                   fmt::format("links, FIFOs and files of other users in {} are refused", folder));
    }
}

} // namespace tarvoctl
