#pragma once

#include "area/records.hpp"
#include "common/exit_status.hpp"
#include "common/shown.hpp"
#include "host/area_source.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <string>
#include <string_view>

namespace tarvoctl {

/// The texts of the first few items, and how many more there are: "a, b and 3 more".
template <typename Items, typename Text>
std::string first_few(const Items& items, size_t most_named, Text text_of,
                      std::string_view between = ", ") {
    std::string made;
    for (size_t i = 0; i < std::min(items.size(), most_named); ++i) {
        made += i == 0 ? "" : between;
        made += text_of(items[i]);
    }
    return items.size() <= most_named
               ? made
               : fmt::format("{} and {} more", made, items.size() - most_named);
}

/// The devices a chunk is mapped for, such as "0000:03:00.0 (offline)", or "-" for none. What
/// points at no registered device reads "?7", with the element number. The first four, and how many
/// more there are.
std::string devices_text(const chunk_record& chunk, const picture& records);

/// Part of the region as devices see it, from its first byte to its last one.
std::string dma_range(const dma_window& region, uint64_t first_pa, uint64_t end_pa);
/// A chunk's; "?" where it is unknown where the region lies.
std::string dma_range(const chunk_record& chunk, const picture& records);
/// "DMA 0x20000000, physical 0x0200000000"
std::string address_text(uint64_t pa, const dma_window& region);

/// Says on standard error which names several chunks have, where there are any. `only`: looks at
/// this name alone; empty: at all.
void report_duplicates(const picture& records, std::string_view only);

/// "tarvoctl check", and the copy it is about, as a shell takes it.
std::string command_on(const std::string& words, const area_source& source);

/// Reports on standard error the lists that could not be read to their end. Returns how the command
/// ends then: damaged, or good.
exit_status report_damage(const std::vector<std::string>& damage, const area_source& source);

/// Where the region lies. Throws failure where the records do not say.
const dma_window& known_region(const picture& records, const area_source& source);

} // namespace tarvoctl
