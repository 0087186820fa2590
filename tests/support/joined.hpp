#pragma once

#include <sstream>
#include <string>

/// The pieces in one text, as a stream writes them.
template <typename... Pieces>
std::string joined(const Pieces&... pieces) {
    std::ostringstream stream;
    (stream << ... << pieces);
    return stream.str();
}
