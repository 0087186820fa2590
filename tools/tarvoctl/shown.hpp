#pragma once

#include <string>
#include <string_view>

namespace tarvoctl {

bool is_utf8(std::string_view text);

/// A name as a terminal can show it: bytes that are no printable ASCII or UTF-8 as \xNN, and so a
/// backslash. Not to be applied twice.
std::string shown(std::string_view text);

} // namespace tarvoctl
