#include "host/area_file.hpp"

#include "host/gzip.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace tarvoctl {

namespace {

constexpr size_t copied_bytes = 4096;
constexpr mode_t owner_only = 0600;
/// As long as a live one.
constexpr size_t whole_blocks =
    (sizeof(shared_area_t) + copied_bytes - 1) / copied_bytes * copied_bytes;

bool is_zero(const char* first, size_t bytes) {
    static constexpr std::array<char, copied_bytes> zeros{};
    return std::memcmp(first, zeros.data(), bytes) == 0;
}

const char* bytes_of(const shared_area_t& area) {
    return reinterpret_cast<const char*>(&area);
}

/// Those that are not all zeros.
std::vector<std::span<const char>> filled_blocks_of(const shared_area_t& area) {
    std::vector<std::span<const char>> blocks;
    for (size_t offset = 0; offset < sizeof area; offset += copied_bytes) {
        const size_t count = std::min(copied_bytes, sizeof area - offset);
        if (!is_zero(bytes_of(area) + offset, count)) {
            blocks.emplace_back(bytes_of(area) + offset, count);
        }
    }
    return blocks;
}

/// Compressed: nearly all of an area is zeros, and holes in a file would be lost in the next copy.
std::string packed(const shared_area_t& area) {
    std::vector<char> bytes(whole_blocks);
    std::memcpy(bytes.data(), bytes_of(area), sizeof area);
    return gzipped(bytes);
}

} // namespace

void write_snapshot(const new_file::target& wanted, const shared_area_t& area) {
    new_file file{wanted, owner_only};
    const std::string bytes = packed(area);
    file.write_at(bytes.data(), bytes.size(), 0);
    file.finish();
}

void print_snapshot(const shared_area_t& area) {
    const std::string bytes = packed(area);
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
        throw std::system_error{errno, std::generic_category(), "fwrite"};
    }
}

void write_area(const new_file::target& wanted, const shared_area_t& area) {
    new_file file{wanted, owner_only};
    const auto filled = filled_blocks_of(area);
    file.require_room(filled.size() * copied_bytes);
    file.resize(whole_blocks);
    for (const std::span<const char> block : filled) {
        file.write_at(block.data(), block.size(),
                      static_cast<size_t>(block.data() - bytes_of(area)));
    }
    file.finish();
}

} // namespace tarvoctl
