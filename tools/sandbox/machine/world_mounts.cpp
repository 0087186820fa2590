#include "machine/world_mounts.hpp"

#include "common/trouble.hpp"
#include "machine/driver_files.hpp"
#include "machine/proc_view.hpp"
#include "machine/shadow.hpp"
#include "machine/sysfs_view.hpp"

#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

namespace sandbox {

namespace {

/// /var/tmp is anybody's; the other folders are root's.
constexpr mode_t public_folder_mode = 01777;
constexpr mode_t private_folder_mode = 0755;

/// A folder on the host that keeps part of the state, opened before /var is covered: it may lie
/// there. Empty where nothing is kept.
class kept_state {
  public:
    explicit kept_state(const std::string& folder) {
        if (folder.empty()) {
            return;
        }
        make_if_missing(folder, private_folder_mode);
        _folder.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!_folder) {
            throw failed_call("--state " + folder + ": cannot open it; name a folder");
        }
    }

    explicit operator bool() const { return static_cast<bool>(_folder); }

    std::string path(const std::string& name) const {
        return "/proc/self/fd/" + std::to_string(_folder.get()) + "/" + name;
    }

    /// What was kept by an earlier run is left as it is.
    static void make_if_missing(const std::string& folder, mode_t mode) {
        if (::mkdir(folder.c_str(), mode) == 0) {
            ::chmod(folder.c_str(), mode);
        } else if (errno != EEXIST) {
            throw failed_call("--state: cannot make the folder " + folder);
        }
    }

  private:
    unique_fd _folder;
};

void show_real_proc(const unique_fd& real_proc) {
    const std::string hidden = "/proc/" + std::string{proc_view::hidden_folder};
    if (::move_mount(real_proc.get(), "", AT_FDCWD, hidden.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0) {
        throw failed_call("cannot mount the real /proc");
    }
}

void make_state_folder(const kept_state& state, const std::string& name, const std::string& target,
                       mode_t mode) {
    if (!state) {
        make_folder(target, mode);
        return;
    }
    kept_state::make_if_missing(state.path(name), mode);
    bind_folder(state.path(name), target);
}

/// A sparse file whose offsets are physical addresses; never made shorter than it was.
void make_mem_file(const std::string& path, uint64_t last_pa) {
    const unique_fd file{::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
    struct stat found {};
    if (!file || ::fstat(file.get(), &found) != 0) {
        throw failed_call("cannot make the file for /dev/mem");
    }
    const auto length = static_cast<off_t>(last_pa + 1);
    if (found.st_size < length && ::ftruncate(file.get(), length) != 0) {
        throw failed_call("--region: no sparse file for /dev/mem reaches to its end; choose a "
                          "lower END or leave out --state");
    }
}

void build_dev(const world& chosen, const kept_state& state) {
    shadow_folder("/dev", {std::string{mem_file_name}});
    if (!chosen.has_mem_file()) {
        return;
    }
    if (!state) {
        make_mem_file(paths::physical_memory, chosen.region->last_pa);
        return;
    }
    make_mem_file(state.path("mem"), chosen.region->last_pa);
    bind_file(state.path("mem"), paths::physical_memory);
}

/// /var/lock is a link on many machines; here it is a folder, so that what it leads to stays as it
/// is.
void build_var(const world& chosen, const kept_state& state) {
    shadow_folder("/var", {"tmp", "shmem", "lock"});
    make_state_folder(state, "tmp", "/var/tmp", public_folder_mode);
    if (chosen.has(item::shmem)) {
        make_state_folder(state, "shmem", "/var/shmem", private_folder_mode);
    }
    make_folder("/var/lock", public_folder_mode);
    if (chosen.has(item::lockdir)) {
        make_state_folder(state, "subsys", "/var/lock/subsys", private_folder_mode);
    }
}

} // namespace

void build_world(const world& chosen, const unique_fd& real_proc) {
    show_real_proc(real_proc);
    const kept_state state{chosen.state_dir};
    build_dev(chosen, state);
    substitute_folder(sysfs_view::path, "/proc/" + std::string{sysfs_view::folder_in_proc});
    build_var(chosen, state);
}

} // namespace sandbox
