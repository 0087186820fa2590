#pragma once

#include <string>

namespace sandbox {

std::string run_help();
std::string join_help();
std::string rule_help();

} // namespace sandbox
