#pragma once

#include "common/unique_fd.hpp"
#include "host/ending_signals.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <sys/types.h>

namespace tarvoctl {

/// What becomes of a file that has the name already.
enum class existing_file { refused, replaced };

/// A file in the making. It takes its name only when it is whole and on the disk; until then, and
/// whatever goes wrong, what had the name before stays as it was, and nothing else is left, also by
/// a process that is killed. The library's own files are never replaced, and neither is what is
/// not a regular file. All members throw failure.
///
/// Only a file that replaces another has a second name, for the instant between two system calls;
/// on a file system that has no files without a name, every file has one from its beginning.
/// Signals by which people end a program wait meanwhile.
class new_file {
  public:
    struct target {
        std::string path;
        existing_file existing = existing_file::refused;
        const char* remedy = "name another file, or --force replaces it"; ///< where it is refused
        const char* room_remedy = "name a file where there is room";
    };

    /// `mode` is what the umask leaves of it.
    new_file(target wanted, mode_t mode);
    ~new_file();
    new_file(const new_file&) = delete;
    new_file& operator=(const new_file&) = delete;

    /// Throws failure where the file system has less room than that many bytes.
    void require_room(size_t bytes) const;
    void resize(size_t bytes);
    void write_at(const char* first, size_t bytes, size_t offset);
    /// Gives it its name.
    void finish();

  private:
    [[noreturn]] void fail(int number) const;
    void open(mode_t mode);
    void open_named(mode_t mode);
    int give_name(const std::string& name) const;
    void replace();
    void take_temporary_name();

    target _wanted;
    unique_fd _file;
    std::optional<held_back_signals> _uninterrupted; ///< while there is a temporary name
    std::string _temporary; ///< in the same folder; empty where it has none
};

} // namespace tarvoctl
