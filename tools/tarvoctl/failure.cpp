#include "failure.hpp"

#include <system_error>

namespace tarvoctl {

std::string error_text(int number) {
    return std::generic_category().message(number);
}

} // namespace tarvoctl
