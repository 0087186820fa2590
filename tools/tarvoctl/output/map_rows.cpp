#include "output/map_rows.hpp"

#include <algorithm>
#include <limits>
#include <optional>

namespace tarvoctl {

namespace {

/// How many rows from `pa` on are wholly in free memory that ends after `free_bytes`; the region's
/// last one may be shorter.
uint64_t free_rows(uint64_t free_bytes, bool is_last, uint64_t row_bytes) {
    const bool has_short_row = is_last && free_bytes % row_bytes != 0;
    return free_bytes / row_bytes + (has_short_row ? 1 : 0);
}

/// Nothing where there are more than `most_rows`.
std::optional<std::vector<map_row>> rows_at(const std::vector<piece>& pieces, uint64_t row_bytes,
                                            size_t most_rows) {
    std::vector<map_row> rows;
    const uint64_t end = pieces.back().pa + pieces.back().bytes;
    auto here = pieces.begin();
    for (uint64_t pa = pieces.front().pa; pa != end; pa += rows.back().bytes) {
        while (pa - here->pa >= here->bytes) {
            ++here;
        }
        const uint64_t left = here->bytes - (pa - here->pa);
        const bool is_free = here->state == piece_state::free;
        const uint64_t whole = is_free ? free_rows(left, here + 1 == pieces.end(), row_bytes) : 0;
        const uint64_t bytes =
            whole > 1 ? std::min(left, whole * row_bytes) : std::min(row_bytes, end - pa);
        rows.push_back({pa, bytes, whole > 1});
        if (rows.size() > most_rows) {
            return std::nullopt;
        }
    }
    return rows;
}

} // namespace

map_rows rows_of(const std::vector<piece>& pieces, uint64_t least_row_bytes, size_t most_rows) {
    constexpr uint64_t largest = std::numeric_limits<uint64_t>::max();
    uint64_t row_bytes = least_row_bytes;
    for (;;) {
        if (auto rows = rows_at(pieces, row_bytes, most_rows)) {
            return {row_bytes, std::move(*rows)};
        }
        row_bytes = row_bytes > largest / 2 ? largest : row_bytes * 2;
    }
}

piece clipped(const piece& whole, const map_row& row) {
    piece part = whole;
    const uint64_t pa = std::max(whole.pa, row.pa);
    const uint64_t end = std::min(whole.pa + whole.bytes, row.pa + row.bytes);
    part.pa = pa;
    part.bytes = end > pa ? end - pa : 0;
    return part;
}

} // namespace tarvoctl
