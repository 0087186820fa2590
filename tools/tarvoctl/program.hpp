#pragma once

#include "commands/commands.hpp"

#include <memory>
#include <string>

namespace tarvoctl {

/// The command line, with the words of all commands.
class program {
  public:
    program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;
    ~program();

    /// Parses, carries the command out, and says how the program ends. Failures are reported on
    /// standard error and, where JSON is asked for, on standard output as well.
    int run(int argc, char** argv);

  private:
    void add(const command_entry& entry, action (*set_up)(command_words&));
    exit_status parse_and_carry_out(int argc, char** argv);
    /// The command that was parsed; empty where there is none.
    std::string chosen_name() const;

    std::unique_ptr<CLI::App> _parser;
    action _chosen;
};

} // namespace tarvoctl
