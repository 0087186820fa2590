#include "library/new_chunk.hpp"

#include "area/gaps.hpp"
#include "common/quantities.hpp"
#include "output/text.hpp"
#include "shared/layout.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <iterator>

namespace tarvoctl {

namespace {

std::optional<std::string> record_obstacle(const picture& records) {
    constexpr size_t most_chunks = chunk_capacity - 2; // the others bound the region
    if (records.chunks.size() < most_chunks) {
        return std::nullopt;
    }
    return fmt::format("all {} chunk records are in use; free some", most_chunks);
}

std::optional<std::string> gap_obstacle(uint32_t size, const picture& records) {
    const auto gaps = gaps_of(records);
    if (first_fit(gaps, size)) {
        return std::nullopt;
    }
    const free_space free = free_space_of(gaps);
    const auto [wanted, largest, total] =
        size_texts<3>({size, free.largest_bytes, free.total_bytes});
    return fmt::format("it takes {}, the largest gap has {}, all gaps together {}", wanted, largest,
                       total);
}

std::optional<std::string> partial_chunk_in(const picture& records) {
    for (const chunk_record& each : records.chunks) {
        if (auto partial = damage_to_bounds(each)) {
            return partial;
        }
    }
    return std::nullopt;
}

/// The library looks for gaps in the order of the list.
std::optional<std::string> disorder_in(const std::vector<chunk_record>& chunks) {
    const auto upper = std::ranges::adjacent_find(chunks, std::greater{}, &chunk_record::pa);
    if (upper == chunks.end()) {
        return std::nullopt;
    }
    return fmt::format("'{}' lies below '{}' but comes after it on the list",
                       shown(std::next(upper)->name), shown(upper->name));
}

std::optional<std::string> outsider_in(const picture& records) {
    const dma_window& region = records.region;
    const auto outside = [&region](const chunk_record& each) {
        return each.pa < region.first_pa || each.pa > region.end_pa ||
               each.size > region.end_pa - each.pa;
    };
    const auto found = std::ranges::find_if(records.chunks, outside);
    if (found == records.chunks.end()) {
        return std::nullopt;
    }
    return fmt::format("'{}' does not lie in the region", shown(found->name));
}

std::optional<std::string> overlap_in(const std::vector<piece>& pieces) {
    const auto found = std::ranges::find(pieces, piece_state::overlapping, &piece::state);
    if (found == pieces.end()) {
        return std::nullopt;
    }
    return fmt::format("'{}' and '{}' overlap", shown(found->owner->name),
                       shown(found->other->name));
}

} // namespace

std::optional<std::string> damage_to_places(const picture& records, bool driver_chooses) {
    if (auto partial = partial_chunk_in(records)) {
        return partial;
    }
    if (!records.all_chunks) {
        return "not all chunks could be read";
    }
    if (auto outsider = outsider_in(records)) {
        return outsider;
    }
    if (auto disorder = disorder_in(records.chunks)) {
        return disorder;
    }
    return driver_chooses ? std::nullopt : overlap_in(pieces_of(records));
}

std::optional<std::string> obstacle_to(uint32_t size, const picture& records, bool driver_chooses) {
    if (auto full = record_obstacle(records)) {
        return full;
    }
    return driver_chooses ? std::nullopt : gap_obstacle(size, records);
}

} // namespace tarvoctl
