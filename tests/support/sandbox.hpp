#pragma once

#include "area.hpp"
#include "client.hpp"
#include "driver_log.hpp"
#include "process.hpp"
#include "temporary_folder.hpp"
#include "world.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// A machine with the world of one's choice, for as long as the object lives: any number of
/// clients run in it, one after the other or side by side, and share its files and its driver.
class sandbox {
  public:
    /// `options`: further options of tarvo-sandbox, such as {"--rule", "op=map,errno=EIO"}.
    explicit sandbox(const world& chosen, const std::vector<std::string>& options = {});

    const world& chosen() const { return _world; }

    /// A program that uses the library. The commands given are carried out first.
    client start(const std::vector<std::string>& first_commands = {});
    /// The same of a tarvo-client that was built for other machines; `words` run it.
    client start_program(const std::vector<std::string>& words);
    /// Any program at all.
    process start_process(const std::vector<std::string>& words);

    /// Adds rules to the driver's, in force on return. `replace_rules` drops the earlier ones.
    void add_rules(const std::vector<std::string>& rules);
    void replace_rules(const std::vector<std::string>& rules);

    /// The machine's files as they are seen from outside.
    std::filesystem::path simulated_memory() const { return folder("tmp") / "tarvo"; }
    std::filesystem::path simulated_area() const { return folder("tmp") / "tarvo_lib"; }
    std::filesystem::path simulated_lock() const { return folder("tmp") / "tarvo_lock"; }
    std::filesystem::path physical_memory() const { return folder("mem"); }
    std::filesystem::path hardware_area() const { return folder("shmem") / "tarvo_lib"; }
    std::filesystem::path hardware_lock() const { return folder("subsys") / "tarvo_lock"; }
    /// Those that the chosen world makes use of.
    std::filesystem::path memory_file() const;
    std::filesystem::path shared_area() const;
    std::filesystem::path lock_file() const;

    /// The shared area of the chosen world, as it is now and as it changes.
    area_file area() const { return area_file(shared_area()); }
    area_file writable_area() const { return area_file(shared_area(), area_file::access::write); }

    /// What the driver was asked, each as shown() says it.
    std::vector<std::string> driver_log() const;
    /// Only the IOMMU request lines, and only the CMA commands: the exact bytes of each write.
    std::vector<std::string> request_lines() const;
    std::vector<std::string> cma_commands() const;

  private:
    std::filesystem::path folder(const char* name) const { return _folder.path() / "state" / name; }
    std::vector<std::string> written_to(const char* file) const;
    void change_rules(const std::vector<std::string>& arguments);
    std::filesystem::path error_file();

    world _world;
    temporary_folder _folder;
    int _processes = 0;
    std::optional<process> _keeper; ///< holds the sandbox open while no client runs
};

/// Permission bits of a file, in octal as ls and chmod have them; "missing" if there is none.
std::string mode_of(const std::filesystem::path& path);

/// Holds a file's lock, from outside, as long as it lives.
class held_lock {
  public:
    explicit held_lock(const std::filesystem::path& path);
    ~held_lock();
    held_lock(const held_lock&) = delete;
    held_lock& operator=(const held_lock&) = delete;

  private:
    int _fd;
};

/// Whether nobody holds a file's lock just now.
bool lock_is_free(const std::filesystem::path& path);
