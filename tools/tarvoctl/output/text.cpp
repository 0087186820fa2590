#include "output/text.hpp"

#include "failure.hpp"

#include <array>
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

std::string device_text(const device_record& device) {
    return fmt::format("{:04x}:{:02x}:{:02x}.{:x}", device.domain, device.bus,
                       device.devfn >> 3 & 0x1f, device.devfn & 7);
}

std::string devices_text(const chunk_record& chunk, const picture& records) {
    std::string made;
    for (const int index : chunk.devices) {
        const device_record* const device = records.device_at(index);
        made += made.empty() ? "" : " ";
        if (device == nullptr) {
            made += fmt::format("?{}", index);
        } else {
            made += device_text(*device) + (device->online ? "" : " (offline)");
        }
    }
    return made.empty() ? "-" : made;
}

std::string pa_range(const chunk_record& chunk) {
    return fmt::format("{:#011x}-{:#011x}", chunk.pa, chunk.end_pa() - 1);
}

std::string dma_range(const chunk_record& chunk, const picture& records) {
    if (!records.has_region())
        return "?";
    const dma_window& region = records.region;
    return fmt::format("{:#010x}-{:#010x}", region.dma_of(chunk.pa),
                       region.dma_of(chunk.end_pa() - 1));
}

std::string size_text(uint64_t bytes, bool human) {
    constexpr std::array units{"", "K", "M", "G", "T"};
    constexpr uint64_t step = 1024;
    if (!human || bytes < step)
        return fmt::format("{}", bytes);
    auto scaled = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (scaled >= step && unit + 1 < units.size()) {
        scaled /= step;
        ++unit;
    }
    const std::string digits = fmt::format("{:.1f}", scaled);
    const bool whole = digits.ends_with(".0");
    return (whole ? digits.substr(0, digits.size() - 2) : digits) + units[unit];
}

exit_status told_damage(const std::vector<std::string>& damage) {
    for (const auto& each : damage)
        fmt::print(stderr, "tarvoctl: {}\n", each);
    if (damage.empty())
        return exit_status::good;
    fmt::print(stderr, "tarvoctl: the area is damaged; see 'tarvoctl check'\n");
    return exit_status::damaged;
}

const dma_window& known_region(const picture& records) {
    if (!records.has_region()) {
        throw failure{exit_status::damaged,
                      "the records do not say where the region lies; see 'tarvoctl check'"};
    }
    return records.region;
}

} // namespace tarvoctl
