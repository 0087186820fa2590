#pragma once

#include "common/exit_status.hpp"

#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

/// Ends the tool. The text is what the tool prints after its name, so it names the value, file or
/// process and says what to do about it.
class failure : public std::runtime_error {
  public:
    failure(exit_status status, const std::string& text)
        : std::runtime_error{text}, _status{status} {}

    exit_status status() const { return _status; }

  private:
    exit_status _status;
};

/// What the system says of an error number, such as "Permission denied".
inline std::string error_text(int number) {
    return std::generic_category().message(number);
}

/// The name of an error number, such as "EACCES"; the number where it has none.
inline std::string error_name(int number) {
    const char* const name = ::strerrorname_np(number);
    return name == nullptr ? std::to_string(number) : name;
}
