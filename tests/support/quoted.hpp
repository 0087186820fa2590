#pragma once

#include <string>
#include <string_view>

/// `text` in double quotes with escapes, so that tarvo-client reads it back as one word of a line.
inline std::string quoted(std::string_view text) {
    std::string quotation = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quotation += '\\';
        }
        quotation += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return quotation + '"';
}
