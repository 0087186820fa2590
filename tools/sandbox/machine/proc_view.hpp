#pragma once

#include "common/unique_fd.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace sandbox {

/// The machine's real /proc, as the sandbox's own /proc shows it: each entry as a symbolic link
/// into a hidden folder where the real one is mounted. Processes come and go, so the links cannot
/// be made once; they are looked up when asked for.
class proc_view {
  public:
    static constexpr std::string_view hidden_folder = ".host";

    /// Opens /proc as it is now. Throws trouble.
    proc_view();

    /// Numbers for entries: from first_number up. None where the real /proc has no such entry.
    static constexpr uint64_t first_number = 16;
    std::optional<uint64_t> find(std::string_view name);

    std::string name_of(uint64_t number) const;
    std::string link_target(uint64_t number) const;
    static bool is_process(uint64_t number) { return number >= first_process_number; }

    std::vector<std::string> names() const;

    /// The process that a thread belongs to: FUSE names callers by thread.
    pid_t process_of_thread(pid_t thread) const;

    /// Kills whatever else still runs in the caller's mount namespace.
    void kill_remaining() const;

    /// Kills all processes of a mount namespace but the caller. It is named as in /proc/PID/ns/mnt.
    void kill_all_in(const std::string& mount_namespace) const;

  private:
    static constexpr uint64_t first_process_number = uint64_t{1} << 32;

    std::optional<std::string> read_link(const std::string& name) const;
    bool kill_others_in(const std::string& mount_namespace) const;

    unique_fd _real_proc;
    std::vector<std::string> _other_names;
};

} // namespace sandbox
