#pragma once

#include "common/failure.hpp"

#include <cerrno>

/// The failure of a tool that runs commands, as opposed to one of the command.
class trouble : public failure {
  public:
    explicit trouble(const std::string& text) : failure{exit_status::trouble, text} {}
};

/// After a system call that failed. Reads errno first: building the text may change it.
inline trouble failed_call(const std::string& what) {
    const int number = errno;
    return trouble{what + ": " + error_text(number)};
}
