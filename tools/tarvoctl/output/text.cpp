#include "output/text.hpp"

#include "failure.hpp"

#include <array>
#include <fmt/format.h>

namespace tarvoctl {

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
