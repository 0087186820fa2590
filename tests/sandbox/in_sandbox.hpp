#pragma once

#include "process.hpp"
#include "temporary_folder.hpp"

#include <string>
#include <vector>

using words = std::vector<std::string>;

inline const std::string proc_file = "/proc/tarvo";
inline const std::string iommu_file = "/sys/kernel/tarvo_iommu_map_region";

/// A device's request at the start of the region of world low, and its undoing.
inline const std::string map_line = "map 0 3 0 2147483648 2148532223 268435456 3\n";
inline const std::string unmap_line = "unmap 0 3 0 2147483648 2148532223 268435456 3\n";

inline words operator+(words first, const words& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// tarvo-sandbox with these arguments.
inline words tool(const words& arguments) {
    return words{SANDBOX_TOOL} + arguments;
}

/// Runs a shell script in a sandbox made with these options.
inline finished run_script(const words& options, const std::string& script) {
    return run_to_end(tool(options) + words{"--", "sh", "-c", script});
}

/// Runs the speaker in a sandbox made with these options; what its calls answered, a line each.
inline std::string speak(const words& options, const words& speaker_arguments) {
    const finished end =
        run_to_end(tool(options) + words{"--", SANDBOX_SPEAKER} + speaker_arguments);
    return end.output + end.errors;
}
