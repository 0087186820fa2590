#pragma once

#include <optional>
#include <string>

namespace tarvoctl {

/// The fix where only a right is missing.
inline constexpr const char* run_as_root = "run it as root";

std::string parent_of(const std::string& path);

/// Why the library cannot use a folder that it has files in: it makes none.
struct folder_fault {
    std::string text; ///< follows the folder's path
    std::string fix;
};

/// `for_new_file`: whether it has yet to make its file there.
std::optional<folder_fault> fault_of_folder(const std::string& folder, bool for_new_file);

} // namespace tarvoctl
