#include "common/shown.hpp"

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace {

struct letter {
    char32_t code;
    std::string_view bytes;
};

/// Of a text that is not empty. Where it is not UTF-8, any code.
letter first_letter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const size_t bytes = lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    const std::string_view own = text.substr(0, bytes);
    char32_t code = bytes == 1 ? lead : lead & (0x7fU >> bytes);
    for (const char each : own.substr(1)) {
        code = code << 6U | (static_cast<unsigned char>(each) & 0x3fU);
    }
    return {code, own};
}

letter first_byte(std::string_view text) {
    return {static_cast<unsigned char>(text.front()), text.substr(0, 1)};
}

/// Whether a character has no form of its own: controls, which to some terminals are what an escape
/// and a letter are; what turns the direction of writing, joins, or cannot be seen; and codes
/// that are not characters, which XML refuses as well.
bool is_formless(char32_t code) {
    constexpr std::pair<char32_t, char32_t> ranges[] = {
        {0x00, 0x1f},     {0x7f, 0x9f},     {0xad, 0xad},     {0x61c, 0x61c},
        {0x180e, 0x180e}, {0x200b, 0x200f}, {0x2028, 0x202e}, {0x2060, 0x206f},
        {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xfffe, 0xffff}, {0xe0000, 0xe007f}};
    return std::any_of(std::begin(ranges), std::end(ranges), [code](const auto& range) {
        return range.first <= code && code <= range.second;
    });
}

/// By the C library's table, whatever the user's locale is.
size_t width_of(char32_t code) {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (code < 0x80 || utf8 == nullptr) {
        return 1;
    }
    const locale_t before = ::uselocale(utf8);
    const int columns = ::wcwidth(static_cast<wchar_t>(code));
    ::uselocale(before);
    return columns < 0 ? 1 : static_cast<size_t>(columns);
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

std::string shell_word(std::string_view text) {
    constexpr std::string_view plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
        "_-./:,+@%=";
    constexpr std::string_view special = "$`\"";
    if (text.find_first_not_of(plain) == std::string_view::npos) {
        return std::string(text);
    }
    std::string quoted;
    for (const char each : shown(text)) {
        quoted += special.find(each) == std::string_view::npos ? "" : "\\";
        quoted += each;
    }
    return '"' + quoted + '"';
}

std::string shown(std::string_view text) {
    const bool keep_high = is_utf8(text);
    std::string made;
    while (!text.empty()) {
        const letter next = keep_high ? first_letter(text) : first_byte(text);
        // The backslash too, or a name that holds "\x1b" would read like one that holds an escape.
        if (is_formless(next.code) || next.code == '\\' || (next.code >= 0x80 && !keep_high)) {
            for (const char byte : next.bytes) {
                made += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
            }
        } else {
            made += next.bytes;
        }
        text.remove_prefix(next.bytes.size());
    }
    return made;
}

std::string shown_name(std::string_view text) {
    return text.empty() ? "\"\"" : shown(text);
}

size_t width_of(std::string_view text) {
    size_t width = 0;
    while (!text.empty()) {
        const letter next = first_letter(text);
        width += width_of(next.code);
        text.remove_prefix(next.bytes.size());
    }
    return width;
}

std::string cut_to_width(const std::string& text, size_t width) {
    size_t columns = 0;
    for (size_t at = 0; at < text.size();) {
        const letter next = first_letter(std::string_view{text}.substr(at));
        columns += width_of(next.code);
        if (columns > width) {
            return text.substr(0, at);
        }
        at += next.bytes.size();
    }
    return text;
}
