#pragma once

#include "exit_status.hpp"

#include <stdexcept>
#include <string>

namespace tarvoctl {

/// Ends the command. The text is what the tool prints behind its name, so it names the value, file
/// or process and says what to do about it.
class failure : public std::runtime_error {
  public:
    failure(exit_status status, const std::string& text)
        : std::runtime_error{text}, _status{status} {}

    exit_status status() const { return _status; }

  private:
    exit_status _status;
};

/// What the system says of an error number, such as "Permission denied".
std::string error_text(int number);

} // namespace tarvoctl
