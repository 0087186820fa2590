#include "shown.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace tarvoctl {

namespace {

unsigned char byte_at(std::string_view text, std::size_t position) {
    return position < text.size() ? static_cast<unsigned char>(text[position]) : '\0';
}

/// Whether UTF-8 has a control character of two bytes there, U+0080 to U+009f. To some terminals
/// they are what an escape and a letter are.
bool is_high_control(std::string_view text, std::size_t position) {
    const unsigned char second = byte_at(text, position + 1);
    return byte_at(text, position) == 0xc2 && second >= 0x80 && second < 0xa0;
}

} // namespace

bool is_utf8(std::string_view text) {
    try {
        static_cast<void>(nlohmann::json(text).dump());
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

std::string shown(std::string_view text) {
    const bool keep_high = is_utf8(text);
    std::string made;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char byte = byte_at(text, i);
        const bool control = byte < 0x20 || byte == 0x7f || is_high_control(text, i) ||
                             (i > 0 && is_high_control(text, i - 1));
        // The backslash too, or a name that holds "\x1b" would read like one that holds an escape.
        if (control || byte == '\\' || (byte >= 0x80 && !keep_high)) {
            made += fmt::format("\\x{:02x}", byte);
        } else {
            made += text[i];
        }
    }
    return made;
}

} // namespace tarvoctl
