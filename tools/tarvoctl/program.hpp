#pragma once

#include "command_words.hpp"
#include "common/exit_status.hpp"

#include <functional>
#include <memory>
#include <string>

namespace tarvoctl {

/// The command line: each command adds itself, its options and what it does.
class program {
  public:
    using action = std::function<exit_status()>;

    program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;
    ~program();

    /// Adds a command. `group` is the heading in the help under which it stands.
    command_words add(const std::string& name, const std::string& about, const std::string& group,
                      action run);

    /// The same for one that runs with options, which its words fill in.
    template <typename Options>
    command_words add(const std::string& name, const std::string& about, const std::string& group,
                      const std::shared_ptr<Options>& options,
                      exit_status (*carry_out)(const Options&)) {
        return add(name, about, group, [options, carry_out] { return carry_out(*options); });
    }

    /// Parses, carries the command out, and says how the program ends. Failures are reported on
    /// standard error and, where JSON is asked for, on standard output as well.
    int run(int argc, char** argv);

  private:
    exit_status parse_and_carry_out(int argc, char** argv);
    /// The command that was parsed; empty where there is none.
    std::string chosen_name() const;

    std::unique_ptr<CLI::App> _parser;
    action _chosen;
};

/// The headings.
inline constexpr const char* looking = "Looking";
inline constexpr const char* changing = "Changing";
inline constexpr const char* repairing = "Checking and repairing";

} // namespace tarvoctl
