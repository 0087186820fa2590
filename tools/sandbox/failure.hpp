#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace sandbox {

/// Something is wrong with the tool's own options or set-up. The text is the one line the tool
/// prints, so it names the option, rule or file and says what to do about it.
class failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Read errno first: building the text may change it.
inline failure failed_call(const std::string& what) {
    const int number = errno;
    return failure{what + ": " + std::generic_category().message(number)};
}

} // namespace sandbox
