#include "machine/sysfs_view.hpp"

#include "common/trouble.hpp"
#include "machine/driver_files.hpp"

#include <filesystem>
#include <system_error>

namespace sandbox {

sysfs_view::sysfs_view() {
    std::error_code error;
    const std::filesystem::directory_iterator all(path, error);
    if (error) {
        throw trouble{std::string{"cannot list "} + path + ": " + error.message()};
    }
    for (const auto& found : all) {
        const std::string name = found.path().filename();
        const auto kind = found.symlink_status(error).type();
        if (name == sysfs_file_name || error) { // vanished since it was listed
            continue;
        }
        const bool is_link = kind == std::filesystem::file_type::symlink;
        _entries.push_back({name, kind == std::filesystem::file_type::directory,
                            is_link ? std::filesystem::read_symlink(found.path(), error).string()
                                    : std::string{hidden_folder} + "/" + name});
    }
}

std::optional<uint64_t> sysfs_view::find(std::string_view name) const {
    for (size_t i = 0; i < _entries.size(); ++i) {
        if (_entries[i].name == name) {
            return first_number + i;
        }
    }
    return std::nullopt;
}

std::vector<std::string> sysfs_view::names() const {
    std::vector<std::string> all;
    for (const entry& each : _entries) {
        all.push_back(each.name);
    }
    return all;
}

} // namespace sandbox
