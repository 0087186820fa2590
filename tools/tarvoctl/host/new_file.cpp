#include "host/new_file.hpp"

#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/file_identity.hpp"
#include "shared/paths.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tarvoctl {

namespace {

std::filesystem::path folder_of(const std::filesystem::path& path) {
    return path.has_parent_path() ? path.parent_path() : ".";
}

/// The same file, whatever leads to it, or the same name in the same folder.
bool is_same(const std::string& path, const std::string& other) {
    const std::filesystem::path one{path};
    const std::filesystem::path two{other};
    const auto file = identity_of(path);
    const auto folder = identity_of(folder_of(one));
    return (file && file == identity_of(other)) ||
           (folder && folder == identity_of(folder_of(two)) && one.filename() == two.filename());
}

/// Processes may be using them now; one that is yet to be made would change what the next one does.
bool is_of_library(const std::string& path) {
    constexpr const char* files[] = {paths::simulated_memory, paths::simulated_area,
                                     paths::simulated_lock, paths::hardware_area,
                                     paths::hardware_lock};
    return std::ranges::any_of(files, [&path](const char* file) { return is_same(path, file); });
}

mode_t umask_now() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

/// Whether a folder's file system has no files without a name.
bool means_no_nameless_files(int number) {
    return number == EOPNOTSUPP || number == EISDIR || number == EINVAL;
}

/// Fails with EEXIST where something has the name; `from` may be left over then and otherwise.
int rename_to_free(const std::string& from, const std::string& name) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    // Network file systems have no such condition, but a link replaces nothing either.
    return errno == EINVAL ? ::link(from.c_str(), name.c_str()) : -1;
}

} // namespace

new_file::new_file(target wanted, mode_t mode) : _wanted{std::move(wanted)} {
    if (is_of_library(_wanted.path)) {
        throw failure{exit_status::usage,
                      fmt::format("cannot write {}: that is a file of the library; name another",
                                  _wanted.path)};
    }
    struct stat found {};
    if (::stat(_wanted.path.c_str(), &found) == 0 && !S_ISREG(found.st_mode)) {
        throw failure{
            exit_status::usage,
            fmt::format("cannot write {}: it is not a regular file; name another", _wanted.path)};
    }
    if (_wanted.existing == existing_file::refused && ::lstat(_wanted.path.c_str(), &found) == 0) {
        fail(EEXIST);
    }
    open(mode);
}

void new_file::open(mode_t mode) {
    _file.reset(::open(folder_of(_wanted.path).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode));
    if (_file) {
        return;
    }
    if (!means_no_nameless_files(errno)) {
        fail(errno);
    }
    open_named(mode);
}

void new_file::open_named(mode_t mode) {
    _uninterrupted.emplace();
    std::string name = folder_of(_wanted.path) / ".tarvoctl-XXXXXX";
    _file.reset(::mkostemp(name.data(), O_CLOEXEC));
    if (!_file) {
        fail(errno);
    }
    _temporary = std::move(name);
    ::fchmod(_file.get(), mode & ~umask_now());
}

new_file::~new_file() {
    if (!_temporary.empty()) {
        ::unlink(_temporary.c_str());
    }
}

void new_file::fail(int number) const {
    const bool is_there = number == EEXIST;
    throw failure{is_there ? exit_status::usage : exit_status::unreadable,
                  fmt::format("cannot write {}: {}{}", _wanted.path, error_text(number),
                              is_there ? fmt::format("; {}", _wanted.remedy) : "")};
}

void new_file::require_room(size_t bytes) const {
    struct statvfs disk {};
    // Some file systems do not count their blocks.
    if (::fstatvfs(_file.get(), &disk) != 0 || disk.f_blocks == 0) {
        return;
    }
    const uint64_t free = (::geteuid() == 0 ? disk.f_bfree : disk.f_bavail) * disk.f_frsize;
    if (free < bytes) {
        throw failure{
            exit_status::unreadable,
            fmt::format("cannot write {}: {}: the copy takes {}, and {} are free there; {}",
                        _wanted.path, error_text(ENOSPC), size_text(bytes), size_text(free),
                        _wanted.room_remedy)};
    }
}

void new_file::resize(size_t bytes) {
    if (::ftruncate(_file.get(), static_cast<off_t>(bytes)) != 0) {
        fail(errno);
    }
}

void new_file::write_at(const char* first, size_t bytes, size_t offset) {
    while (bytes > 0) {
        const ssize_t written = ::pwrite(_file.get(), first, bytes, static_cast<off_t>(offset));
        if (written < 0) {
            fail(errno);
        }
        first += written;
        bytes -= static_cast<size_t>(written);
        offset += static_cast<size_t>(written);
    }
}

void new_file::finish() {
    // A disk that is full may say so only now.
    if (::fsync(_file.get()) != 0) {
        fail(errno);
    }
    if (_wanted.existing == existing_file::replaced) {
        replace();
        return;
    }
    const int named =
        _temporary.empty() ? give_name(_wanted.path) : rename_to_free(_temporary, _wanted.path);
    if (named != 0) {
        fail(errno);
    }
}

/// Fails with EEXIST where something has the name.
int new_file::give_name(const std::string& name) const {
    const std::string nameless = fmt::format("/proc/self/fd/{}", _file.get());
    return ::linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW);
}

/// A link replaces nothing, so the file gets a name that is free, and that one replaces the other.
void new_file::replace() {
    if (_temporary.empty()) {
        _uninterrupted.emplace();
        take_temporary_name();
    }
    if (std::rename(_temporary.c_str(), _wanted.path.c_str()) != 0) {
        fail(errno);
    }
    _temporary.clear();
}

void new_file::take_temporary_name() {
    for (int number = 0; _temporary.empty(); ++number) {
        const std::string name =
            folder_of(_wanted.path) / fmt::format(".tarvoctl-{}-{}", ::getpid(), number);
        if (give_name(name) == 0) {
            _temporary = name;
        } else if (errno != EEXIST) {
            fail(errno);
        }
    }
}

} // namespace tarvoctl
