#include "gaps.hpp"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace tarvoctl {

namespace {

/// Where a chunk begins or ends within the region.
struct boundary {
    uint64_t pa;
    const chunk_record* chunk;
    bool begins;
};

struct is_lower {
    bool operator()(const chunk_record* a, const chunk_record* b) const {
        return std::pair(a->pa, a) < std::pair(b->pa, b);
    }
};

using owner_set = std::set<const chunk_record*, is_lower>;

std::vector<boundary> boundaries_of(const picture& records) {
    const dma_window& region = records.region;
    std::vector<boundary> found;
    found.reserve(2 * records.chunks.size());
    for (const auto& chunk : records.chunks) {
        if (chunk.pa >= region.end_pa) {
            continue;
        }
        const uint64_t first = std::max(chunk.pa, region.first_pa);
        // Without a sum that a damaged record could make wrap.
        const uint64_t end = chunk.pa + std::min<uint64_t>(chunk.size, region.end_pa - chunk.pa);
        if (first < end) {
            found.push_back({first, &chunk, true});
            found.push_back({end, &chunk, false});
        }
    }
    std::ranges::stable_sort(found, {}, &boundary::pa);
    return found;
}

piece piece_between(uint64_t pa, uint64_t end_pa, const owner_set& owners, bool all_chunks) {
    if (owners.empty()) {
        const auto state = all_chunks ? piece_state::free : piece_state::unknown;
        return {pa, end_pa - pa, state, nullptr, nullptr, 0};
    }
    const auto lowest = owners.begin();
    if (owners.size() == 1) {
        return {pa, end_pa - pa, piece_state::used, *lowest, nullptr, 1};
    }
    return {pa, end_pa - pa, piece_state::overlapping, *lowest, *std::next(lowest), owners.size()};
}

} // namespace

std::vector<piece> pieces_of(const picture& records) {
    std::vector<piece> pieces;
    owner_set owners;
    uint64_t pa = records.region.first_pa;
    const auto add_up_to = [&](uint64_t end_pa) {
        if (end_pa > pa) {
            pieces.push_back(piece_between(pa, end_pa, owners, records.all_chunks));
            pa = end_pa;
        }
    };
    for (const auto& each : boundaries_of(records)) {
        add_up_to(each.pa);
        if (each.begins) {
            owners.insert(each.chunk);
        } else {
            owners.erase(each.chunk);
        }
    }
    add_up_to(records.region.end_pa);
    return pieces;
}

std::vector<gap> gaps_of(const picture& records) {
    const auto pieces = pieces_of(records);
    std::vector<gap> gaps;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (pieces[i].state == piece_state::free) {
            gaps.push_back({pieces[i].pa, pieces[i].bytes, i > 0 ? pieces[i - 1].owner : nullptr,
                            i + 1 < pieces.size() ? pieces[i + 1].owner : nullptr});
        }
    }
    return gaps;
}

double free_space::fragmentation() const {
    if (total_bytes == 0) {
        return 0;
    }
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
    const auto found =
        std::ranges::find_if(gaps, [size](const gap& each) { return each.bytes >= size; });
    return found == gaps.end() ? std::nullopt : std::optional{*found};
}

} // namespace tarvoctl
