#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

/// The machine's real /sys/kernel, as the sandbox's own shows it: each folder as a place where the
/// real one is mounted, all else as a symbolic link into a hidden folder that holds the real one.
class sysfs_view {
  public:
    static constexpr const char* path = "/sys/kernel";
    static constexpr std::string_view hidden_folder = ".host";
    /// The sandbox's own, until it is bound to its place.
    static constexpr std::string_view folder_in_proc = ".sys_kernel";

    /// Lists /sys/kernel as it is now, without the driver's file. Throws trouble.
    sysfs_view();

    /// Numbers for entries: from first_number up. None where there is no such entry.
    static constexpr uint64_t first_number = uint64_t{1} << 40;
    static bool has(uint64_t number) { return number >= first_number; }
    std::optional<uint64_t> find(std::string_view name) const;

    bool is_folder(uint64_t number) const { return entry_of(number).is_folder; }
    const std::string& link_target(uint64_t number) const { return entry_of(number).target; }

    std::vector<std::string> names() const;

  private:
    struct entry {
        std::string name;
        bool is_folder;
        std::string target; // of a link; empty for a folder
    };

    const entry& entry_of(uint64_t number) const { return _entries.at(number - first_number); }

    std::vector<entry> _entries;
};

} // namespace sandbox
