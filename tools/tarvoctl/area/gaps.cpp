#include "gaps.hpp"

#include <algorithm>

namespace tarvoctl {

std::vector<gap> gaps_of(const picture& region) {
    std::vector<gap> gaps;
    uint64_t pa = region.region.first_pa;
    const chunk_record* before = nullptr;
    const auto add_up_to = [&](uint64_t end_pa, const chunk_record* behind) {
        if (end_pa > pa)
            gaps.push_back({pa, end_pa - pa, before, behind});
    };
    for (const auto& chunk : region.chunks) {
        add_up_to(chunk.pa, &chunk);
        pa = std::max(pa, chunk.end_pa());
        before = &chunk;
    }
    add_up_to(region.region.end_pa, nullptr);
    return gaps;
}

double free_space::fragmentation() const {
    if (total_bytes == 0)
        return 0;
    return 1 - static_cast<double>(largest_bytes) / static_cast<double>(total_bytes);
}

free_space free_space_of(const std::vector<gap>& gaps) {
    free_space found;
    for (const auto& each : gaps) {
        found.total_bytes += each.bytes;
        found.largest_bytes = std::max(found.largest_bytes, each.bytes);
    }
    return found;
}

uint32_t rounded_size(uint64_t bytes, uint32_t page_bytes) {
    return static_cast<uint32_t>((bytes + page_bytes - 1) / page_bytes * page_bytes);
}

std::optional<gap> first_fit(const std::vector<gap>& gaps, uint32_t size) {
    const auto found = std::find_if(gaps.begin(), gaps.end(),
                                    [size](const gap& each) { return each.bytes >= size; });
    return found == gaps.end() ? std::nullopt : std::optional{*found};
}

} // namespace tarvoctl
