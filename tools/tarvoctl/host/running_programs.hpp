#pragma once

#include <set>
#include <string>

namespace tarvoctl {

/// The names under which the processes of this machine could be known.
class running_programs {
  public:
    /// Looks at all of them, but for the tool itself.
    running_programs();

    /// Whether a creator, which is whatever the allocating program gave, may be one that runs. Also
    /// taken for the program: its last path component, its first word ("rx_agent 1.2", "rx_agent:
    /// port 3"), and what the kernel leaves of a long name.
    bool may_include(const std::string& creator) const;

  private:
    std::set<std::string> _names;
};

/// Whether a creator could be a program's name at all, and not "DMA test, John".
bool looks_like_a_program(const std::string& creator);

} // namespace tarvoctl
