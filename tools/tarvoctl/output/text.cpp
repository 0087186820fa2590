#include "output/text.hpp"

#include "common/failure.hpp"
#include "common/quantities.hpp"

#include <fmt/format.h>
#include <map>

namespace tarvoctl {

std::string devices_text(const chunk_record& chunk, const picture& records) {
    constexpr size_t most_named = 4;
    const auto text_of = [&records](int index) {
        const device_record* const device = records.device_at(index);
        return device == nullptr ? fmt::format("?{}", index)
                                 : device_text(*device) + (device->online ? "" : " (offline)");
    };
    return chunk.devices.empty() ? "-" : first_few(chunk.devices, most_named, text_of, " ");
}

std::string dma_range(const dma_window& region, uint64_t first_pa, uint64_t end_pa) {
    return dma_text(region.dma_of(first_pa)) + "-" + dma_text(region.dma_of(end_pa - 1));
}

std::string dma_range(const chunk_record& chunk, const picture& records) {
    return records.has_region() ? dma_range(records.region, chunk.pa, chunk.end_pa()) : "?";
}

std::string address_text(uint64_t pa, const dma_window& region) {
    return fmt::format("DMA {}, physical {}", dma_text(region.dma_of(pa)), pa_text(pa));
}

void report_duplicates(const picture& records, std::string_view only) {
    constexpr size_t most_named = 5;
    std::map<std::string_view, size_t> count_by_name;
    for (const auto& chunk : records.chunks) {
        ++count_by_name[chunk.name];
    }
    std::erase_if(count_by_name, [only](const auto& each) {
        return each.second == 1 || (!only.empty() && each.first != only);
    });
    size_t named = 0;
    for (const auto& [name, count] : count_by_name) {
        if (named++ == most_named) {
            break;
        }
        fmt::print(stderr, "tarvoctl: {} chunks are called '{}'; calls by name find the lowest\n",
                   count, shown(name));
    }
    if (count_by_name.size() > most_named) {
        fmt::print(stderr, "tarvoctl: and {} like these\n",
                   counted(count_by_name.size() - most_named, "more name"));
    }
}

std::string command_on(const std::string& words, const area_source& source) {
    return source.is_live() ? "tarvoctl " + words
                            : fmt::format("tarvoctl {} {}", words, shell_word(source.file));
}

exit_status report_damage(const std::vector<std::string>& damage, const area_source& source) {
    for (const auto& each : damage) {
        fmt::print(stderr, "tarvoctl: {}\n", each);
    }
    if (damage.empty()) {
        return exit_status::good;
    }
    fmt::print(stderr, "tarvoctl: {} is damaged; see '{}'\n",
               source.is_live() ? "the area" : shown(source.file), command_on("check", source));
    return exit_status::damaged;
}

const dma_window& known_region(const picture& records, const area_source& source) {
    if (!records.has_region()) {
        throw failure{exit_status::damaged,
                      fmt::format("the records do not say where the region lies; see '{}'",
                                  command_on("check", source))};
    }
    return records.region;
}

} // namespace tarvoctl
