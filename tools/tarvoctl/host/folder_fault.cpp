#include "host/folder_fault.hpp"

#include "common/failure.hpp"
#include "host/file_shortage.hpp"
#include "host/mount.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

/// Of a path that leads through a file.
std::string first_non_folder(const std::string& path) {
    std::filesystem::path walked;
    std::error_code unread;
    for (const auto& part : std::filesystem::path{path}) {
        walked /= part;
        if (!std::filesystem::is_directory(walked, unread)) {
            break;
        }
    }
    return walked;
}

std::string fix_for(const std::string& path, int error) {
    switch (error) {
    case ENOENT:
        if (path == parent_of(paths::hardware_area)) {
            return fmt::format("mkdir -p {0} && mount -t tmpfs -o size={1}m,mode=0755 tmpfs {0}",
                               path, area_tmpfs_mebibytes);
        }
        return fmt::format("mkdir -p {}; a tmpfiles.d entry makes it at every start", path);
    case EACCES:
        return run_as_root;
    case EROFS:
        return fmt::format("mount -o remount,rw {}", mount_of(path).point);
    default: // something in its path is not a directory
        return fmt::format("mv {0} {0}.old && mkdir -p {1}", first_non_folder(path), path);
    }
}

folder_fault fault(const std::string& what, const std::string& folder, int error) {
    return {fmt::format("{}: {}", what, error_text(error)), fix_for(folder, error)};
}

} // namespace

std::string parent_of(const std::string& path) {
    return std::filesystem::path{path}.parent_path();
}

std::optional<folder_fault> fault_of_folder(const std::string& folder, bool for_new_file) {
    struct stat found {};
    if (::stat(folder.c_str(), &found) != 0) {
        return fault("cannot be used", folder, errno);
    }
    if (!S_ISDIR(found.st_mode)) {
        return folder_fault{"is not a directory", fix_for(folder, ENOTDIR)};
    }
    if (for_new_file && ::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return fault("takes no new file", folder, errno);
    }
    return std::nullopt;
}

} // namespace tarvoctl
