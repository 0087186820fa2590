#pragma once

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

using words = std::vector<std::string>;

inline const std::string proc_file = "/proc/tarvo";
inline const std::string iommu_file = "/sys/kernel/tarvo_iommu_map_region";

/// A device's request at the start of the region of world low, and its undoing.
inline const std::string map_line = "map 0 3 0 2147483648 2148532223 268435456 3\n";
inline const std::string unmap_line = "unmap 0 3 0 2147483648 2148532223 268435456 3\n";

/// A folder that is removed with all it holds.
class temporary_folder {
  public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    std::string path(const std::string& name) const { return (_path / name).string(); }

  private:
    std::filesystem::path _path;
};

/// How a program ended, as waitpid(2) sees it, and all it printed.
struct outcome {
    /// -1 where a signal ended it.
    int status = -1;
    /// 0 where it ended by itself.
    int signal = 0;
    std::string output;
    std::string errors;
};

/// A program that runs beside the test; killed with it, at the latest.
class running_program {
  public:
    explicit running_program(const words& command);
    ~running_program();
    running_program(const running_program&) = delete;
    running_program& operator=(const running_program&) = delete;

    pid_t pid() const { return _pid; }
    std::string output() const;
    outcome wait();

  private:
    temporary_folder _folder;
    pid_t _pid = -1;
};

/// tarvo-sandbox with these arguments.
words tool(const words& arguments);

/// Runs it to its end.
outcome run(const words& command);

/// Runs a shell script in a sandbox made with these options.
outcome run_script(const words& options, const std::string& script);

/// Runs the speaker in a sandbox made with these options; what its calls answered, a line each.
std::string speak(const words& options, const words& speaker_arguments);

std::string file_text(const std::filesystem::path& path);

/// The lines of a log of tarvo-sandbox.
std::vector<nlohmann::json> log_lines(const std::string& path);

/// Waits some seconds for it to come true.
bool eventually(const std::function<bool()>& wanted);
