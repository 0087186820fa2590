#include "library/new_chunk.hpp"

#include "area/gaps.hpp"
#include "output/text.hpp"
#include "shared/layout.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

std::optional<std::string> record_obstacle(const picture& records) {
    constexpr std::size_t most_chunks = chunk_capacity - 2; // the others bound the region
    if (records.chunks.size() < most_chunks)
        return std::nullopt;
    return fmt::format("all {} chunk records are in use; free some", most_chunks);
}

std::optional<std::string> gap_obstacle(uint32_t size, const picture& records) {
    const auto gaps = gaps_of(records);
    if (first_fit(gaps, size))
        return std::nullopt;
    const free_space free = free_space_of(gaps);
    return fmt::format("the largest gap has {} bytes, all gaps together {}", free.largest_bytes,
                       free.total_bytes);
}

} // namespace

std::optional<std::string> device_obstacle(uint32_t size, const picture& records) {
    const auto online = std::find_if(records.devices.begin(), records.devices.end(),
                                     [](const device_record& each) { return each.online; });
    if (size <= most_bytes_for_devices || online == records.devices.end())
        return std::nullopt;
    return fmt::format("{} bytes cannot be mapped for {}, which is online; devices see chunks of "
                       "at most {} bytes",
                       size, device_text(*online), most_bytes_for_devices);
}

std::optional<std::string> obstacle_to(uint32_t size, const picture& records, bool driver_chooses) {
    if (auto full = record_obstacle(records))
        return full;
    if (auto refused = device_obstacle(size, records))
        return refused;
    return driver_chooses ? std::nullopt : gap_obstacle(size, records);
}

} // namespace tarvoctl
