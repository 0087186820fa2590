#include "host/area_file.hpp"

#include <algorithm>
#include <array>
#include <cstring>

namespace tarvoctl {

namespace {

constexpr std::size_t page_bytes = 4096;

bool is_zero(const char* first, std::size_t bytes) {
    static constexpr std::array<char, page_bytes> zeros{};
    return std::memcmp(first, zeros.data(), bytes) == 0;
}

} // namespace

void write_area(const new_file::target& wanted, const shared_area_t& area) {
    constexpr mode_t owner_only = 0600;
    constexpr std::size_t whole_pages = (sizeof area + page_bytes - 1) / page_bytes * page_bytes;
    new_file file{wanted, owner_only};
    file.resize(whole_pages);
    const auto* const bytes = reinterpret_cast<const char*>(&area);
    for (std::size_t offset = 0; offset < sizeof area; offset += page_bytes) {
        const std::size_t count = std::min(page_bytes, sizeof area - offset);
        if (!is_zero(bytes + offset, count))
            file.write_at(bytes + offset, count, offset);
    }
    file.finish();
}

} // namespace tarvoctl
