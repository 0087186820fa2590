#pragma once

#include "exit_status.hpp"
#include "host/area_source.hpp"

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace tarvoctl {

/// The command line: each command adds itself, its options and what it does.
class program {
  public:
    using action = std::function<exit_status()>;

    program();

    /// Adds a command. `group` is the heading in the help under which it stands.
    CLI::App& add(const std::string& name, const std::string& about, const std::string& group,
                  action run);

    /// Parses, carries the command out, and says how the program ends. Failures are told on
    /// standard error.
    int run(int argc, char** argv);

  private:
    CLI::App app_;
    action chosen_;
};

/// The headings.
inline constexpr const char* looking = "Looking";
inline constexpr const char* changing = "Changing";
inline constexpr const char* mending = "Checking and mending";

/// --area FILE and --timeout SECONDS, for commands that read the records.
void add_source(CLI::App& command, area_source& source);
/// --timeout SECONDS alone, for commands on the live area.
void add_timeout(CLI::App& command, std::chrono::milliseconds& timeout);
/// --interval SECONDS, for commands that look again and again.
void add_interval(CLI::App& command, std::chrono::milliseconds& interval);
/// --json
void add_json(CLI::App& command, bool& json);

/// Reads a size such as 64K, 2M, 0x1000: throws failure with `what` in its text.
uint64_t parse_size(const std::string& text, const std::string& what);

} // namespace tarvoctl
