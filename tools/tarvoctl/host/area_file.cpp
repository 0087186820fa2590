#include "host/area_file.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <vector>

namespace tarvoctl {

namespace {

constexpr std::size_t page_bytes = 4096;

bool is_zero(const char* first, std::size_t bytes) {
    static constexpr std::array<char, page_bytes> zeros{};
    return std::memcmp(first, zeros.data(), bytes) == 0;
}

const char* bytes_of(const shared_area_t& area) {
    return reinterpret_cast<const char*>(&area);
}

/// Those that are not all zeros.
std::vector<std::span<const char>> filled_pages_of(const shared_area_t& area) {
    std::vector<std::span<const char>> pages;
    for (std::size_t offset = 0; offset < sizeof area; offset += page_bytes) {
        const std::size_t count = std::min(page_bytes, sizeof area - offset);
        if (!is_zero(bytes_of(area) + offset, count)) {
            pages.emplace_back(bytes_of(area) + offset, count);
        }
    }
    return pages;
}

} // namespace

void write_area(const new_file::target& wanted, const shared_area_t& area) {
    constexpr mode_t owner_only = 0600;
    constexpr std::size_t whole_pages = (sizeof area + page_bytes - 1) / page_bytes * page_bytes;
    new_file file{wanted, owner_only};
    const auto filled = filled_pages_of(area);
    file.require_room(filled.size() * page_bytes);
    file.resize(whole_pages);
    for (const std::span<const char> page : filled) {
        file.write_at(page.data(), page.size(),
                      static_cast<std::size_t>(page.data() - bytes_of(area)));
    }
    file.finish();
}

} // namespace tarvoctl
